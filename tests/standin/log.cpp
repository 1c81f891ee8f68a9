// The host's log as the module sees it.
#include "tests/standin/log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "host/imports.h"
#include "tests/standin/calls.h"
#include "tests/standin/text.h"
#include "tests/standin/whole_text.h"

log_level_info_t log_level_info[] = {
    {"ALERT", LOG_ALERT},   {"BUG", LOG_CRIT},  {"CRITICAL", LOG_CRIT},
    {"", LOG_CRIT},         {"ERROR", LOG_ERR}, {"WARNING", LOG_WARNING},
    {"NOTICE", LOG_NOTICE}, {"INFO", LOG_INFO}, {"DEBUG", LOG_DEBUG}};
int log_stderr = 0;
int log_color = 0;
str *log_prefix_val = nullptr;
volatile int dprint_crit = 0;
int process_no = 0;

namespace standin {
namespace {

struct log_state {
  std::vector<log_record> records;
  std::vector<syslog_record> lines;
  std::vector<color_call> colors;
  std::string prefix;
  str prefix_text = {};
  int debug_level = L_DBG;
  int facility = LOG_DAEMON;
};

log_state &state() {
  static log_state &only = *new log_state;
  return only;
}

std::string text_or_empty(const char *text) { return text != nullptr ? text : ""; }

void catch_structured(ksr_logdata_t *data, const char *format, ...) {
  ahead_of_step();
  va_list arguments;
  va_start(arguments, format);
  // The engine's lines come with their values in them: its log knows no host.
  if (!text_or_empty(data->v_fname).starts_with("memdb/")) expect_whole_text(format, arguments);
  const std::string text = print_text(format, arguments);
  va_end(arguments);
  state().records.push_back({data->v_level, data->v_facility, text_or_empty(data->v_lname),
                             text_or_empty(data->v_fname), data->v_fline,
                             text_or_empty(data->v_mname), text_or_empty(data->v_func),
                             text_or_empty(data->v_locinfo), text, dprint_crit});
}

void catch_syslog(int priority, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  state().lines.push_back({priority, print_text(format, arguments)});
  va_end(arguments);
}

}  // namespace

void use_log_sink(log_sink sink) {
  _ksr_slog_func = sink == log_sink::structured ? catch_structured : nullptr;
  log_stderr = sink == log_sink::standard_error ? 1 : 0;
}

const std::vector<log_record> &logs() { return state().records; }

std::vector<log_record> logs(int level) {
  std::vector<log_record> out;
  for (const log_record &record : state().records)
    if (record.level == level) out.push_back(record);
  return out;
}

std::vector<std::string> log_texts() {
  std::vector<std::string> out;
  for (const log_record &record : state().records) out.push_back(record.text);
  return out;
}

std::vector<std::string> log_texts(int level) {
  std::vector<std::string> out;
  for (const log_record &record : state().records)
    if (record.level == level) out.push_back(record.text);
  return out;
}

bool logged(int level, const std::string &text) {
  for (const log_record &record : state().records)
    if (record.level == level && record.text == text) return true;
  return false;
}

bool log_contains(int level, const std::string &part) {
  for (const log_record &record : state().records)
    if (record.level == level && record.text.find(part) != std::string::npos) return true;
  return false;
}

size_t log_count(int level) { return logs(level).size(); }

std::string log_dump() {
  std::string out;
  for (const log_record &record : state().records)
    out += record.level_name + " " + record.function + ": " + record.text;
  return out;
}

const std::vector<syslog_record> &syslog_lines() { return state().lines; }
const std::vector<color_call> &color_calls() { return state().colors; }

void clear_logs() {
  state().records.clear();
  state().lines.clear();
  state().colors.clear();
}

void set_debug_level(int level) { state().debug_level = level; }
int debug_level_queries() { return calls("get_debug_level"); }
void set_facility(int facility) { state().facility = facility; }

void set_log_prefix(const std::string &prefix) {
  state().prefix = prefix;
  state().prefix_text = {state().prefix.data(), static_cast<int>(state().prefix.size())};
  log_prefix_val = &state().prefix_text;
}

void clear_log_prefix() { log_prefix_val = nullptr; }
void set_log_color(bool on) { log_color = on ? 1 : 0; }
void set_process_no(int number) { process_no = number; }

void reset_log() {
  state() = {};
  use_log_sink(log_sink::structured);
  log_prefix_val = nullptr;
  log_color = 0;
  dprint_crit = 0;
  process_no = 0;
}

}  // namespace standin

void (*_ksr_slog_func)(ksr_logdata_t *, const char *, ...) = standin::catch_structured;
void (*_km_log_func)(int priority, const char *, ...) = standin::catch_syslog;

int my_pid() { return getpid(); }

void dprint_color(int level) {
  standin::state().colors.push_back({false, level});
  fprintf(stderr, "<color %d>", level);
}

void dprint_color_reset() {
  standin::state().colors.push_back({true, 0});
  fputs("<color off>", stderr);
}

int get_debug_level(const char *, int) {
  standin::call_fails("get_debug_level");
  return standin::state().debug_level;
}

int get_debug_facility(const char *, int) { return standin::state().facility; }
