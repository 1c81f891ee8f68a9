// The module started on the stand-in host with a schema and directories of its own, for programs
// that measure it. Its log is off but for errors, as on a server at work.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/standin/standin.h"
#include "tests/support/schema_text.h"

namespace bench {

using schema_text::table;

inline constexpr int MAX_ROWS = 1000000;

// A directory that is removed with all that is in it.
class work_directory {
 public:
  work_directory();
  ~work_directory();
  work_directory(const work_directory &) = delete;
  work_directory &operator=(const work_directory &) = delete;

  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class started_module {
 public:
  // Gives up if the module doesn't start.
  started_module(std::unique_ptr<standin::loaded_module> module, const std::vector<table> &tables);
  ~started_module();
  started_module(const started_module &) = delete;
  started_module &operator=(const started_module &) = delete;

  // Prepares a call as the host does for its script; gives up if the module refuses it.
  standin::command prepare(const std::string &function,
                           const std::vector<std::string> &parameters) const;
  int run(const standin::command &call) { return module_->run(call, msg_); }

  // Runs a call and gives up if its result isn't this one: a measured call has to do what its name
  // says.
  void expect(const standin::command &call, int result);

  sip_msg &msg() { return msg_; }

 private:
  work_directory directory_;
  std::unique_ptr<standin::loaded_module> module_;
  sip_msg msg_;
};

// Ends the work of run_main with a message.
[[noreturn]] void give_up(const std::string &message);

// Does a program's work and gives its exit status, with a message for what give_up gave up.
int run_main(const std::function<void()> &work);

// From now on the host's allocators are the C library's: the stand-in's own keep a record of every
// block, which would be most of what is measured. There is no way back, and nothing may reset the
// stand-in afterwards.
void use_plain_allocators();

}  // namespace bench
