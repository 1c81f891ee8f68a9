// Other processes of the test, for what the host's processes do to each other. They share what
// lies in the stand-in's shared mapping, so a test calls standin::use_shared_mapping before start.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace module_test {

// A forked process that does one piece of work and tells its result. Killed, if it still works, at
// the end of the scope. Failed expectations in it don't fail the test.
class child_process {
 public:
  explicit child_process(const std::function<int()> &work);
  ~child_process();
  child_process(const child_process &) = delete;
  child_process &operator=(const child_process &) = delete;

  // The result, if there is one within the time.
  std::optional<int> result(int milliseconds = 20000);

  // Waits until the work is done or the process sleeps. True if it sleeps, which, of all that a
  // script function does, only waiting for a lock makes it do.
  bool sleeps();

 private:
  bool asleep_now() const;

  pid_t pid_;
  int reading_end_;
  std::optional<int> result_;
};

// A process that stops in the middle of its work, at the first message that holds the given text,
// until it is let go. The constructor returns when it has stopped there.
class stopped_process {
 public:
  stopped_process(const std::string &message_part, const std::function<int()> &work);
  ~stopped_process();
  stopped_process(const stopped_process &) = delete;
  stopped_process &operator=(const stopped_process &) = delete;

  // Lets the work go on, and gives its result.
  std::optional<int> let_go();

 private:
  int go_[2];
  std::unique_ptr<child_process> process_;
};

// A process that holds a table's lock: it stops in the store timer, where that finds the table
// unchanged. What has changed is stored by then.
class lock_holder : public stopped_process {
 public:
  explicit lock_holder(const std::string &table_name);
};

}  // namespace module_test
