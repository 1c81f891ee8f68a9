// The host's log as this module writes to it: one macro per level, filtered by the host's debug
// level before an argument is evaluated, and given to one of the host's three sinks in one call.
#pragma once

#include <climits>
#include <cstdio>
#include <type_traits>

#include "host/imports.h"
#include "host/message_text.h"

#define TARN_MODULE_NAME "tarn_memdb"

inline constexpr int LOG_LEVEL_UNKNOWN = INT_MIN;

// The host's debug level during a host_log_scope, else LOG_LEVEL_UNKNOWN. One copy per process.
extern int host_log_level_held;

// The host's debug level for this module: a call into the host, except within a host_log_scope.
inline int host_log_level() {
  return host_log_level_held != LOG_LEVEL_UNKNOWN
             ? host_log_level_held
             : get_debug_level(TARN_MODULE_NAME, sizeof(TARN_MODULE_NAME) - 1);
}

// True if a message of this level is to be written now. A message raised while another is being
// written (by a signal handler, say) is dropped, as everywhere in the host.
inline bool host_log_enabled(int level) { return dprint_crit == 0 && host_log_level() >= level; }

// Asks the host for the debug level once for all that is logged during its life. mod_init,
// mod_destroy and each script function, command and timer pass open one, so that no message inside,
// row loops included, costs a call into the host; fix-ups and child_init log too little for that.
// Scopes may nest; the outermost counts.
class host_log_scope {
 public:
  host_log_scope() : outer_(host_log_level_held) { host_log_level_held = host_log_level(); }
  ~host_log_scope() { host_log_level_held = outer_; }
  host_log_scope(const host_log_scope &) = delete;
  host_log_scope &operator=(const host_log_scope &) = delete;

 private:
  int outer_;
};

// Raises the host's mark of a message being written.
class host_log_critical {
 public:
  host_log_critical() { dprint_crit = dprint_crit + 1; }
  ~host_log_critical() { dprint_crit = dprint_crit - 1; }
  host_log_critical(const host_log_critical &) = delete;
  host_log_critical &operator=(const host_log_critical &) = delete;
};

// The facility and level word for the syslog sinks, and the level's name in all of them.
int host_log_priority(int level);
inline const char *host_log_level_name(int level) {
  return log_level_info[level + LOG_LEVEL_OFFSET].name;
}
inline int host_log_prefix_len() { return log_prefix_val != nullptr ? log_prefix_val->len : 0; }
inline const char *host_log_prefix() { return log_prefix_val != nullptr ? log_prefix_val->s : ""; }

// What the structured sink is given beside the format.
struct host_log_record {
  host_log_record(int level, const char *file, int line, const char *function);
  ksr_logdata_t data;
  char location[192];
};

// The forms of a whole line on the two classic sinks, around a message's format.
#define HOST_LOG_SYSLOG_FORM(fmt) "%s: %.*s" TARN_MODULE_NAME " [%s:%d]: %s(): " fmt
#define HOST_LOG_STDERR_FORM(fmt) "%2d(%d) " HOST_LOG_SYSLOG_FORM(fmt)

// Gives one message to the sink in use. The three formats are those of the three sinks.
#define HOST_LOG_TO_SINK(level, file, line, function, fmt, stderr_fmt, syslog_fmt, ...) \
  do {                                                                                  \
    if (host_log_enabled(level)) [[unlikely]] {                                         \
      const host_log_critical critical_;                                                \
      if (_ksr_slog_func != nullptr) {                                                  \
        host_log_record record_(level, file, line, function);                           \
        _ksr_slog_func(&record_.data, fmt __VA_OPT__(, ) __VA_ARGS__);                  \
      } else if (log_stderr != 0) {                                                     \
        if (log_color != 0) dprint_color(level);                                        \
        fprintf(stderr, stderr_fmt, process_no, my_pid(), host_log_level_name(level),   \
                host_log_prefix_len(), host_log_prefix(), file, line,                   \
                function __VA_OPT__(, ) __VA_ARGS__);                                   \
        if (log_color != 0) dprint_color_reset();                                       \
      } else {                                                                          \
        _km_log_func(host_log_priority(level), syslog_fmt, host_log_level_name(level),  \
                     host_log_prefix_len(), host_log_prefix(), file, line,              \
                     function __VA_OPT__(, ) __VA_ARGS__);                              \
      }                                                                                 \
    }                                                                                   \
  } while (false)

// Writes one message for a place in the source that may be another than this one. fmt has to be a
// literal: the classic sinks take it joined to the head of their line.
#define HOST_LOG_AT(level, file, line, function, fmt, ...)                      \
  HOST_LOG_TO_SINK(level, file, line, function, fmt, HOST_LOG_STDERR_FORM(fmt), \
                   HOST_LOG_SYSLOG_FORM(fmt) __VA_OPT__(, ) __VA_ARGS__)

#define HOST_LOG(level, ...) HOST_LOG_AT(level, __FILE__, __LINE__, __func__, __VA_ARGS__)

// Writes a message whose text, a message_text, some other place has settled.
#define LM_TEXT(level, text, ...)                                                            \
  do {                                                                                       \
    if (host_log_enabled(level)) [[unlikely]]                                                \
      host_log_text(level, {__FILE__, __LINE__, __func__}, text __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)

#define LM_CRIT(...) HOST_LOG(L_CRIT, __VA_ARGS__)
#define LM_ERR(...) HOST_LOG(L_ERR, __VA_ARGS__)
#define LM_WARN(...) HOST_LOG(L_WARN, __VA_ARGS__)
#define LM_NOTICE(...) HOST_LOG(L_NOTICE, __VA_ARGS__)
#define LM_INFO(...) HOST_LOG(L_INFO, __VA_ARGS__)
#define LM_DBG(...) HOST_LOG(L_DBG, __VA_ARGS__)

struct host_log_site {
  const char *file;
  int line;
  const char *function;
};

// A message's format joined to the form of a sink's line.
struct host_log_line_format {
  host_log_line_format(const char *form, const char *format) {
    snprintf(text, sizeof(text), "%s%s", form, format);
  }
  char text[sizeof(HOST_LOG_STDERR_FORM("")) + MESSAGE_TEXT_SIZE];
};

template <typename... Values>
void host_log_text(int level, const host_log_site &site, const message_text<Values...> &text,
                   std::type_identity_t<Values>... values) {
  HOST_LOG_TO_SINK(level, site.file, site.line, site.function, text.format,
                   host_log_line_format(HOST_LOG_STDERR_FORM(""), text.format).text,
                   host_log_line_format(HOST_LOG_SYSLOG_FORM(""), text.format).text, values...);
}
