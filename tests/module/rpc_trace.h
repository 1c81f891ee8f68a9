// RPC commands under observation: everything that a command does, in order, and which of the
// module's locks are held while it does it.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "tests/module/fixture.h"
#include "tests/standin/whole_text.h"

namespace module_test {

namespace rpc_watch {

// What runs now. The host's operations get no context of the test's, so there is one place for it.
struct watch {
  rpc_function handler = nullptr;
  const rpc_t *host = nullptr;
  void (*log)(ksr_logdata_t *, const char *, ...) = nullptr;
  int least_grave = INFO_LEVEL;
  std::vector<std::pair<std::string, const uint32_t *>> locks;
  std::vector<std::string> steps;
};

inline watch &now() {
  static watch only;
  return only;
}

inline std::string held() {
  std::string out;
  for (const auto &[name, word] : now().locks)
    if (__atomic_load_n(word, __ATOMIC_RELAXED) != 0) out += "{" + name + "} ";
  return out;
}

inline void note(const std::string &what) { now().steps.push_back(held() + what); }

inline std::string printed(const char *format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  std::string out(static_cast<size_t>(vsnprintf(nullptr, 0, format, again)), '\0');
  va_end(again);
  vsnprintf(out.data(), out.size() + 1, format, arguments);
  return out;
}

inline void fault(void *ctx, int code, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  standin::expect_whole_text(format, arguments);
  const std::string text = printed(format, arguments);
  va_end(arguments);
  note("fault " + std::to_string(code) + " " + text);
  now().host->fault(ctx, code, "%s", text.c_str());
}

inline int scan(void *ctx, const char *format, ...) {
  note(std::string("scan ") + format);
  va_list arguments;
  va_start(arguments, format);
  void *const first = va_arg(arguments, void *);
  void *const second = strlen(format) > 1 ? va_arg(arguments, void *) : nullptr;
  va_end(arguments);
  return now().host->scan(ctx, format, first, second);
}

inline int rpl_printf(void *ctx, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = printed(format, arguments);
  va_end(arguments);
  note("line " + text);
  return now().host->rpl_printf(ctx, "%s", text.c_str());
}

inline int add(void *ctx, const char *format, ...) {
  note(std::string("open ") + format);
  va_list arguments;
  va_start(arguments, format);
  void **const handle = va_arg(arguments, void **);
  va_end(arguments);
  return now().host->add(ctx, format, handle);
}

inline int array_add(void *handle, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const char *const text = strcmp(format, "s") == 0 ? va_arg(arguments, const char *) : "?";
  va_end(arguments);
  note(std::string("text ") + text);
  return now().host->array_add(handle, format, text);
}

inline void run(rpc_t *host, void *ctx) {
  now().host = host;
  rpc_t watched = *host;
  watched.fault = fault;
  watched.scan = scan;
  watched.rpl_printf = rpl_printf;
  watched.add = add;
  watched.array_add = array_add;
  now().handler(&watched, ctx);
}

inline void log(ksr_logdata_t *data, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (!std::string_view(data->v_fname).starts_with("memdb/"))
    standin::expect_whole_text(format, arguments);
  const std::string text = printed(format, arguments);
  va_end(arguments);
  if (data->v_level <= now().least_grave) note(std::string(level_name(data->v_level)) + " " + text);
  now().log(data, "%s", text.c_str());
}

}  // namespace rpc_watch

// The bounds that open gives to the four port maps: of different sizes, so that each map's bytes
// can be told from the others' and from everything else in shared memory.
struct small_map {
  const char *word;
  const char *lower;  // the parameters
  const char *upper;
  int min;
  int max;
};
inline constexpr small_map SMALL_MAPS[] = {
    {"INT", "min_int_port", "max_int_port", 21000, 21010},
    {"EXT", "min_ext_port", "max_ext_port", 10000, 10012},
    {"STATIC_INT", "min_static_int_port", "max_static_int_port", 22000, 22016},
    {"STATIC_EXT", "min_static_ext_port", "max_static_ext_port", 9000, 9018},
};

// Tables that hold ports, with the columns that the port rules read.
inline table claiming_table(const std::string &name, const std::string &range,
                            const std::string &log_tag = "") {
  return {.name = name,
          .columns = {{"id", 10, true},
                      {"call"},
                      {"caller"},
                      {"callee"},
                      {"inner", 5},
                      {"side", 7},
                      {"outer", 5},
                      {"kind", 2},
                      {"dynamic_kind", 2}},
          .log_tag = log_tag,
          .ports = {{range, 4, 6}}};
}

class RpcTest : public ModuleTest {
 protected:
  using steps = std::vector<std::string>;

  // start, with small port maps and the module's locks known by their tables' names; the lock of
  // the port maps is "ports".
  void open(const std::vector<table> &tables) {
    for (const small_map &map : SMALL_MAPS) {
      ASSERT_TRUE(module().set_param(map.lower, map.min));
      ASSERT_TRUE(module().set_param(map.upper, map.max));
    }
    start(tables);
    opened_ = tables;
    find_locks();
  }

  // Stops the module and opens it anew from its files.
  void reopen() {
    const standin::host_kind kind = standin::get_host_kind();
    const std::vector<table> tables = opened_;
    rpc_watch::now().locks.clear();
    unload();
    standin::set_host_kind(kind);
    load();
    open(tables);
  }

  // Stops the module: its commands can still be run, its locks are gone.
  void close() {
    rpc_watch::now().locks.clear();
    destroy();
  }

  void TearDown() override {
    rpc_watch::now() = {};
    ModuleTest::TearDown();
  }

  // Runs a command and tells, in order, each operation that it asked of the transport and each
  // message up to a level, as "scan S", "line ...", "open [", "text ...", "fault 500 ...",
  // "warn ..."; before each, in braces, what locks were held. The reply is in `reply`.
  steps trace(const std::string &name, const std::vector<value> &arguments = {},
              int least_grave = INFO_LEVEL) {
    const rpc_export_t *const command = standin::rpc_find(name);
    if (command == nullptr) throw std::logic_error("no command " + name);
    rpc_watch::watch &watch = rpc_watch::now();
    watch.handler = command->function;
    const uint64_t before = standin::last_serial();
    watch_log(least_grave);
    reply = standin::rpc_run(rpc_watch::run, arguments);
    const steps out = unwatch_log();
    EXPECT_EQ(rpc_watch::held(), "") << "still held after " << name;
    EXPECT_EQ(standin::leak_report(pool::pkg, before), "") << "left by " << name;
    EXPECT_EQ(standin::open_streams(), 0) << "left by " << name;
    return out;
  }

  // The same for a script function: its messages, and the result in `result`.
  steps trace_script(const std::string &function, const texts &parameters,
                     int least_grave = INFO_LEVEL) {
    const standin::command prepared = fixup(function, parameters);
    watch_log(least_grave);
    result = call(prepared);
    const steps out = unwatch_log();
    EXPECT_EQ(rpc_watch::held(), "") << "still held after " << function;
    return out;
  }

  // A command that has to succeed and to reply nothing.
  void silently(const std::string &name, const std::vector<value> &arguments) {
    steps seen = trace(name, arguments, WARN_LEVEL);
    std::erase_if(seen, [](const std::string &step) { return step.rfind("scan ", 0) == 0; });
    EXPECT_THAT(seen, testing::IsEmpty());
  }

  void insert(const std::string &query) { silently("tarn_memdb.insert", {query}); }

  // The lines that a command replies with.
  steps lines(const std::string &name, const std::vector<value> &arguments = {}) {
    trace(name, arguments, ERR_LEVEL);
    EXPECT_TRUE(reply.faults.empty()) << reply.faults[0].text;
    return reply.lines;
  }

  // What show_tbl_info tells of one setting, as "State: 1".
  std::string info_line(const std::string &table_name, const std::string &key) {
    for (const std::string &line : lines("tarn_memdb.show_tbl_info", {table_name}))
      if (line.rfind(key + ": ", 0) == 0) return line;
    return "";
  }

  // The byte of a port.
  int port_byte(const std::string &word, int port) {
    for (const small_map &map : SMALL_MAPS) {
      if (word != map.word) continue;
      const auto size = static_cast<size_t>(map.max - map.min + 1);
      for (const standin::block_info &block : standin::live_blocks(pool::shm, "tarn_memdb"))
        if (block.size == size) return static_cast<const uint8_t *>(block.address)[port - map.min];
    }
    throw std::logic_error("no map " + word);
  }

  std::string both_files(const std::string &table_name) {
    return text_or_none(main_file(table_name)) + " / " + text_or_none(backup_file(table_name));
  }

  standin::rpc_reply reply;
  int result = 0;

 private:
  static std::string text_or_none(const std::string &path) {
    return file_exists(path) ? read_file(path) : "none";
  }

  void watch_log(int least_grave) {
    rpc_watch::watch &watch = rpc_watch::now();
    watch.least_grave = least_grave;
    watch.steps.clear();
    watch.log = _ksr_slog_func;
    _ksr_slog_func = rpc_watch::log;
  }

  static steps unwatch_log() {
    _ksr_slog_func = rpc_watch::now().log;
    return rpc_watch::now().steps;
  }

  // A lock is a word of four bytes, made once: that of the port maps first, then one per table in
  // their order.
  void find_locks() {
    auto &locks = rpc_watch::now().locks;
    locks.clear();
    for (const standin::block_info &block : standin::live_blocks(pool::shm, "tarn_memdb")) {
      if (block.size != sizeof(uint32_t)) continue;
      const std::string name = locks.empty() ? "ports" : opened_.at(locks.size() - 1).name;
      locks.emplace_back(name, static_cast<const uint32_t *>(block.address));
    }
    ASSERT_EQ(locks.size(), opened_.size() + 1);
  }

  std::vector<table> opened_;
};

}  // namespace module_test
