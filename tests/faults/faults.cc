// Makes everything that can fail do so, one thing at a time, and looks at what is left: at each
// allocation, call into the host, and file operation of each scenario, and with a device that is
// full after each byte. See docs/testing.md.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "tests/faults/scenarios.h"
#include "tests/module/kept_blocks.h"

#if defined(__SANITIZE_ADDRESS__) || defined(TARN_FAULTS_SANITIZED)
extern "C" int __lsan_do_recoverable_leak_check();
#else
static int __lsan_do_recoverable_leak_check() { return 0; }
#endif

namespace faults {
namespace {

// A run that waits for a lock that nobody gives back ends here.
constexpr unsigned SECONDS_FOR_A_RUN = 60;
constexpr rlim_t LONG_STEP = 97;

std::string present;
size_t deviations = 0;

// Every call into the host that can fail.
const std::vector<std::string> HOST_CALLS = {
    "sr_kemi_modules_add", "rpc_register_array", "register_timer",
    "counter_register",    "find_export",        "pv_register_api",
    "explode_params",      "pv_parse_format",    "pv_parse_spec2",
    "parse_pvname_list",   "fixup_pvar_null",    "fixup_spve_spve",
    "parse_params",        "pv_printf",          "pv_get_spec_value",
    "pv_set_spec_value",   "pv_get_avp_name",    "add_avp",
    "get_str_fparam",      "rpc.scan",           "rpc.add",
    "rpc.array_add",       "rpc.rpl_printf",     "rpc.struct_add",
    "rpc.struct_printf"};

// One thing to fail. Files say nothing of it if it shows only when they are closed: the module
// doesn't look at the result of that.
struct point {
  std::string what;
  std::function<void()> arm;
  bool loses_rows = false;
};

void device_of(rlim_t bytes) {
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = bytes;
  setrlimit(RLIMIT_FSIZE, &limit);
}

void stop_failing() {
  standin::stop_failing();
  standin::stop_failing_calls();
  standin::stop_failing_files();
  device_of(RLIM_INFINITY);
}

// What a run came to.
struct run {
  std::string outcome;
  std::string state;  // before its end; empty if it ended with the act
  tables_rows rows;   // in memory
  std::map<std::string, std::string> files;
  bool read_files = false;
  bool read_failed = false;
  bool load_refused = false;
  bool rename_failed = false;
  std::vector<point> points;  // that the act has
  rlim_t longest = 0;         // file at the end of the act
};

std::vector<point> points_since(size_t operations_before, phase when) {
  std::vector<point> out;
  for (uint64_t n = 1; n <= standin::allocation_count(standin::pool::both); n++)
    out.push_back(
        {"allocation " + std::to_string(n), [n] { standin::fail_at(standin::pool::both, n); }});
  for (const std::string &name : HOST_CALLS)
    for (int n = 1; n <= standin::calls(name); n++)
      out.push_back({name + " " + std::to_string(n), [name, n] { standin::fail_call(name, n); }});
  const std::vector<std::string> operations = standin::file_history();
  for (size_t i = operations_before; i < operations.size(); i++) {
    const int n = static_cast<int>(i - operations_before) + 1;
    // After a stop nothing comes that would make up for it.
    const bool late = when == phase::shutdown || operations[i].rfind("fclose", 0) == 0;
    const std::string name = operations[i].substr(0, operations[i].find(' '));
    // A write that fails is one, whatever the reason; for reads some errors have a meaning.
    const std::vector<int> errors =
        name == "getline" ? std::vector<int>{EIO, ENOMEM, EINVAL} : std::vector<int>{ENOSPC};
    for (const int error : errors)
      out.push_back({"file operation " + std::to_string(n) + ", " + name + ", " + strerror(error),
                     [n, error] { standin::fail_file_op("any", n, error); }, late});
  }
  return out;
}

bool is_start_of(const row_texts &rows, const row_texts &all) {
  return rows.size() <= all.size() && std::equal(rows.begin(), rows.end(), all.begin());
}

// A file that was cut ends with a part of a row at most, and a good row may be a part of a longer
// one.
bool is_cut_of(row_texts rows, const row_texts &all) {
  if (is_start_of(rows, all)) return true;
  if (rows.empty() || rows.size() > all.size()) return false;
  const std::string last = rows.back();
  if (all[rows.size() - 1].rfind(last, 0) != 0) return false;
  rows.pop_back();
  return is_start_of(rows, all);
}

// A list by name, or one without its second port, is rewritten into a text that takes the place of
// the script's own, which is for the host to keep or drop as that was.
size_t own_private_blocks(uint64_t after_serial) {
  const auto blocks = standin::live_blocks(standin::pool::pkg, "tarn_memdb");
  return static_cast<size_t>(
      std::count_if(blocks.begin(), blocks.end(), [=](const standin::block_info &block) {
        return block.serial > after_serial && block.func != "tarn_memdb_convert_query_param_list" &&
               block.func != "widen";
      }));
}

// The number drawn for a row that then can't be made is used up.
std::string without_next_index(const std::string &state) {
  std::string out;
  for (size_t from = 0; from < state.size();) {
    const size_t end = std::min(state.find('\n', from), state.size() - 1) + 1;
    if (state.compare(from, 11, "Next index:") != 0) out += state.substr(from, end - from);
    from = end;
  }
  return out;
}

// Another life from the same files: what is loaded is what the files say.
void check_next_start(world *w, const run &done, const point *failing) {
  const tables_rows expected = w->rows_in_files();
  w->open();
  if (!w->start()) {
    deviation("the next start fails");
    w->destroy();
    w->close();
    return;
  }
  const tables_rows loaded = w->rows();
  if (loaded != expected) deviation("the next start doesn't load what the files say");
  for (const auto &[name, rows] : done.rows) {
    const row_texts &now = loaded.at(name);
    if (now == rows) continue;
    // A read that fails ends the file for that start, and the file stays as it is.
    if (done.read_files && is_start_of(rows, now)) continue;
    // A load that wasn't made left its files as they were, good or bad.
    if (done.load_refused) continue;
    // So that load doesn't come to a bad row behind it.
    if (done.read_failed && (is_start_of(rows, world::rows_at_first().at(name)) ||
                             is_start_of(rows, world::rows_before_that().at(name))))
      continue;
    if (failing == nullptr || !failing->loses_rows)
      deviation("rows of " + name + " are lost over a restart");
    else if (!is_cut_of(now, rows) && now != world::rows_at_first().at(name) &&
             now != world::rows_before_that().at(name))
      deviation("rows of " + name + " are neither the last nor those before");
  }
  w->destroy();
  w->close();
}

using file_texts = std::map<std::string, std::string>;

constexpr char REFUSED[] = " refused";

// A load leaves each file as it is, or with its whole text beside its place. Where it can't be
// renamed it may go.
void check_files_of_load(const file_texts &before, const file_texts &after, bool rename_failed) {
  for (const auto &[name, text] : before) {
    const auto there = after.find(name);
    const auto aside = after.find(name + REFUSED);
    if (there != after.end() && there->second != text)
      deviation("a load changes the file " + name);
    else if (there == after.end() && (aside == after.end() || aside->second != text) &&
             !rename_failed)
      deviation("a load loses the text of the file " + name);
  }
  for (const auto &[name, text] : after)
    if (before.count(name) == 0 && !name.ends_with(REFUSED))
      deviation("a load makes the file " + name);
}

// What was put aside stays as it is, whatever is stored and loaded later.
void check_refused_files(const file_texts &before, const file_texts &after) {
  for (const auto &[name, text] : before)
    if (name.ends_with(REFUSED) && (after.count(name) == 0 || after.at(name) != text))
      deviation("the file " + name + " doesn't stay as it is");
}

run run_once(const scenario &s, const point *failing) {
  alarm(SECONDS_FOR_A_RUN);
  run out;
  world w(s.host, s.rows);
  w.open();
  if (s.when != phase::start && !w.start()) deviation("no start without a failure");
  s.prepare(w);
  // A stop writes what the tables hold, and is gone when one could ask it.
  if (s.when == phase::shutdown) out.rows = w.rows();
  const auto files_before = w.files();
  const uint64_t youngest = standin::last_serial();
  const size_t operations = standin::file_history().size();
  standin::reset_calls();
  standin::reset_allocation_count();
  if (failing != nullptr) failing->arm();
  out.outcome = s.act(w);
  stop_failing();
  out.points = points_since(operations, s.when);
  const std::vector<std::string> done = standin::file_history();
  const auto did = [&](const char *operation, bool having_failed) {
    return std::any_of(
        done.begin() + static_cast<long>(operations), done.end(), [&](const std::string &each) {
          return each.rfind(operation, 0) == 0 && (!having_failed || each.ends_with("(failed)"));
        });
  };
  out.read_files = did("getline", false);
  out.read_failed = did("getline", true);
  out.rename_failed = did("rename", true);
  out.load_refused = s.loads && is_failure(out.outcome);
  const bool failed = is_failure(out.outcome);
  if (s.when == phase::fixup) {
    // What was made of the parameters before is the host's.
    if (failed && own_private_blocks(w.written_call().serial_before_last()) != 0)
      deviation("private blocks left:\n" + standin::leak_report(standin::pool::pkg, youngest));
  } else {
    const auto blocks = standin::live_blocks(standin::pool::pkg);
    const bool leaks = std::any_of(blocks.begin(), blocks.end(), [=](const auto &block) {
      return block.serial > youngest && !module_test::is_kept_for_languages(block);
    });
    if (leaks)
      deviation("private blocks left:\n" + standin::leak_report(standin::pool::pkg, youngest));
  }
  if (standin::open_streams() != 0) deviation("a stream is left open");
  for (const auto &[name, text] : w.files())
    out.longest = std::max(out.longest, static_cast<rlim_t>(text.size()));
  // Fix-ups that got over the failure have made something that works.
  if (s.when == phase::fixup && !failed) out.outcome += ", " + std::to_string(w.call());
  const auto files_then = w.files();
  if (s.loads) check_files_of_load(files_before, files_then, out.rename_failed);
  if (w.started()) {
    out.rows = w.rows();
    standin::tick();
    out.state = w.state();
  }
  if (s.when != phase::shutdown) w.destroy();
  out.files = w.files();
  if (s.when == phase::start && failed)
    check_files_of_load(files_before, out.files, out.rename_failed);
  check_refused_files(files_then, out.files);
  for (const std::string &each : w.files_open_to_others()) deviation(each + " is open to others");
  // The server ends then, and its shared memory with it.
  w.close(s.when == phase::start && failed);
  check_next_start(&w, out, failing);
  return out;
}

// The state that a scenario begins with.
std::string state_before(const scenario &s) {
  world w(s.host, s.rows);
  w.open();
  w.start();
  s.prepare(w);
  standin::tick();
  std::string out = w.state();
  w.destroy();
  w.close();
  return out;
}

// Tries each step-th point, beginning with that number.
size_t try_all(const scenario &s, size_t first, size_t step) {
  present = s.name;
  const std::string before = s.when == phase::run ? state_before(s) : "";
  const run good = run_once(s, nullptr);
  std::vector<point> points = good.points;
  if (s.stores) {
    const rlim_t between = good.longest > 1024 ? LONG_STEP : 1;
    for (rlim_t bytes = 0; bytes < good.longest; bytes += between)
      points.push_back(
          {"device of " + std::to_string(bytes) + " bytes", [bytes] { device_of(bytes); }, true});
  }
  const auto allocations =
      static_cast<size_t>(std::count_if(points.begin(), points.end(), [](const point &each) {
        return each.what.rfind("allocation", 0) == 0;
      }));
  if (allocations < s.least_allocations)
    deviation("takes " + std::to_string(allocations) + " blocks only");
  size_t tried = 0;
  for (size_t i = first; i < points.size(); i += step) {
    const point &each = points[i];
    tried++;
    present = s.name + ": " + each.what;
    const run bad = run_once(s, &each);
    if (bad.state.empty() || good.state.empty()) continue;
    if (s.when == phase::run && !s.in_parts) {
      if (is_failure(bad.outcome) && bad.outcome != good.outcome) {
        if (without_next_index(bad.state) != without_next_index(before))
          deviation("a call that fails changes something");
      } else if (bad.state != before && bad.state != good.state) {
        deviation("the state is neither that before nor that after");
      }
    }
    // Some fix-ups tell of a query that can't be parsed, and leave the rest to the calls.
    if (s.when == phase::fixup && bad.outcome != good.outcome && bad.outcome != "accepted, -1" &&
        !is_failure(bad.outcome))
      deviation("accepted, but ends with " + bad.outcome + " instead of " + good.outcome);
  }
  present = s.name;
  if (__lsan_do_recoverable_leak_check() != 0) deviation("memory leaks");
  return tried;
}

void overdue(int) {
  static const char text[] = ": no end; is a lock held?\n";
  if (write(STDERR_FILENO, present.data(), present.size()) < 0 ||
      write(STDERR_FILENO, text, sizeof(text) - 1) < 0)
    _exit(3);
  _exit(2);
}

int main_of_all(const std::string &part, size_t step, size_t shift) {
  signal(SIGALRM, overdue);
  signal(SIGXFSZ, SIG_IGN);
  size_t points = 0;
  size_t number = 0;
  for (const scenario &each : all_scenarios()) {
    if (each.name.find(part) == std::string::npos) continue;
    points += try_all(each, (number++ + shift) % step, step);
  }
  printf("faults: %zu points tried, %zu deviations\n", points, deviations);
  return deviations == 0 && points > 0 ? 0 : 1;
}

}  // namespace

void deviation(const std::string &text) {
  deviations++;
  fprintf(stderr, "%s: %s\n", present.c_str(), text.c_str());
}

}  // namespace faults

// faults [TEXT [STEP [SHIFT]]]: tries the scenarios whose names have that text in them, and of
// their points each STEP-th, a different part of them for each SHIFT. Without words all of all.
int main(int count, char **words) {
  const size_t step = count > 2 ? std::stoul(words[2]) : 1;
  const size_t shift = count > 3 ? std::stoul(words[3]) : 0;
  return faults::main_of_all(count > 1 ? words[1] : "", step > 0 ? step : 1, shift);
}
