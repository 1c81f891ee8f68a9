// Forking, watching and stopping.
#include "tests/module/processes.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <stdexcept>

#include "tests/module/fixture.h"
#include "tests/standin/text.h"

namespace module_test {
namespace {

constexpr int PATIENCE_MS = 20000;
constexpr int PAUSE_US = 2000;

void make_pipe(int *ends) {
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
}

bool readable(int file, int milliseconds) {
  pollfd watched = {file, POLLIN, 0};
  return poll(&watched, 1, milliseconds) == 1;
}

// Where a stopped process stops, and the pipes by which it says so and is let go.
std::string stop_at;
int stopped_here = -1;
int wait_here = -1;

void stop_at_message(ksr_logdata_t *, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = standin::print_text(format, arguments);
  va_end(arguments);
  if (wait_here < 0 || text.find(stop_at) == std::string::npos) return;
  char byte = 1;
  if (write(stopped_here, &byte, 1) != 1 || read(wait_here, &byte, 1) < 0) _exit(1);
  wait_here = -1;
}

}  // namespace

child_process::child_process(const std::function<int()> &work) {
  int ends[2];
  make_pipe(ends);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("no process");
  reading_end_ = ends[0];
  if (pid_ != 0) {
    close(ends[1]);
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  close(ends[0]);
  const int result = work();
  _exit(write(ends[1], &result, sizeof(result)) == sizeof(result) ? 0 : 1);
}

child_process::~child_process() {
  if (!result(0)) kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  close(reading_end_);
}

std::optional<int> child_process::result(int milliseconds) {
  int out;
  if (!result_ && readable(reading_end_, milliseconds) &&
      read(reading_end_, &out, sizeof(out)) == sizeof(out))
    result_ = out;
  return result_;
}

bool child_process::asleep_now() const {
  const std::string stat = read_file("/proc/" + std::to_string(pid_) + "/stat");
  const size_t behind_name = stat.rfind(')');
  return behind_name != std::string::npos && stat.compare(behind_name, 3, ") S") == 0;
}

bool child_process::sleeps() {
  int times_seen = 0;
  for (int waited = 0; waited < PATIENCE_MS * 1000; waited += PAUSE_US) {
    if (result(0)) return false;
    times_seen = asleep_now() ? times_seen + 1 : 0;
    if (times_seen == 10) return true;
    usleep(PAUSE_US);
  }
  throw std::runtime_error("a process neither ends nor sleeps");
}

stopped_process::stopped_process(const std::string &message_part,
                                 const std::function<int()> &work) {
  int stopped[2];
  make_pipe(stopped);
  make_pipe(go_);
  process_ = std::make_unique<child_process>([&] {
    stop_at = message_part;
    stopped_here = stopped[1];
    wait_here = go_[0];
    close(go_[1]);
    standin::set_debug_level(DBG_LEVEL);
    _ksr_slog_func = stop_at_message;
    return work();
  });
  close(stopped[1]);
  char byte;
  const bool has_stopped = readable(stopped[0], PATIENCE_MS) && read(stopped[0], &byte, 1) == 1;
  close(stopped[0]);
  if (!has_stopped) throw std::runtime_error("no message with: " + message_part);
}

stopped_process::~stopped_process() {
  let_go();
  close(go_[0]);
}

std::optional<int> stopped_process::let_go() {
  // A byte, since processes forked in the meantime keep the pipe from ending.
  const char byte = 1;
  if (go_[1] >= 0 && write(go_[1], &byte, 1) != 1) throw std::runtime_error("can't let go");
  if (go_[1] >= 0) close(go_[1]);
  go_[1] = -1;
  return process_->result();
}

lock_holder::lock_holder(const std::string &table_name)
    : stopped_process("Table '" + table_name + "' was not changed\n", [] {
        // The first pass stores what has changed; the process stops in the one or the other.
        standin::tick();
        standin::tick();
        return 0;
      }) {}

}  // namespace module_test
