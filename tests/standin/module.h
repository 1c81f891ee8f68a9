// Loading a module as the host does, and running its script functions.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/imports.h"
#include "tests/standin/params.h"
#include "tests/standin/values.h"

namespace standin {

// One call of a script function in a script: the function's row with its prepared parameters.
class command {
 public:
  // The function's row; null if the module exports none of that name and number of parameters.
  const cmd_export_t *row() const { return exported; }

  // Results of the fix-up calls made, in order. The host stops at the first negative one and
  // refuses the script.
  const std::vector<int> &results() const { return fixups; }

  // The youngest allocation ahead of the last fix-up call, for leak_report.
  uint64_t serial_before_last() const { return serial; }

  // True if the host would take the script: the function exists and no fix-up failed.
  bool accepted() const;

  // The n-th parameter's slot, n from 1. An expression has none.
  parameter_slot &slot(size_t n) const { return *slots.at(n - 1); }

 private:
  friend class loaded_module;
  const cmd_export_t *exported = nullptr;
  std::vector<std::unique_ptr<parameter_slot>> slots;
  std::vector<int> fixups;
  uint64_t serial = 0;
};

// Calls the function with its parameters: at most two through the common type, else through the
// type of their number.
int run_function(const script_function &function, const std::vector<char *> &given, sip_msg &msg);

// A module, from a file or linked into the program.
class loaded_module {
 public:
  // For a module that is linked in: what the loader would find as its `exports`.
  explicit loaded_module(const module_exports_t &exports);
  // Unloads without a call of destroy.
  ~loaded_module();
  loaded_module(const loaded_module &) = delete;
  loaded_module &operator=(const loaded_module &) = delete;

  const module_exports_t &exports() const { return *table; }

  // A public symbol of a loaded file, or null: symbol<char *>("module_version") gives its address.
  template <typename T>
  T *symbol(const std::string &name) const {
    return static_cast<T *>(find_symbol(name));
  }

  // Sets a module parameter as the host's loader does: a text is copied to private memory (owner
  // "core", never freed by the host). False if there is no parameter of that name and type, or no
  // memory.
  bool set_param(const std::string &name, int number);
  bool set_param(const std::string &name, const std::string &text);

  // The life-cycle functions; 0 (or nothing) where the module has none.
  int init();
  int child_init(int rank);
  void destroy();

  // The row with that name and number of parameters, or null.
  const cmd_export_t *find(const std::string &name, int param_no) const;

  // Puts each text into a slot of its own and runs the fix-up on each, numbered from 1; a function
  // without parameters has its fix-up called once with null and 0.
  command fixup(const std::string &name, const std::vector<std::string> &texts) const;

  // The same in two steps, for tests that let the fix-ups fail but not the host's own texts.
  command unfixed(const std::string &name, const std::vector<std::string> &texts) const;
  void run_fixups(command *unfixed) const;

  // Calls the function with its slots' contents. Throws std::logic_error on a command that wasn't
  // accepted or has expressions.
  int run(const command &call, sip_msg &msg) const;

  // A call with expressions, which have no text here: the start leaves them alone, and fixes up the
  // others.
  command fixup_with_expressions(const std::string &name,
                                 const std::vector<std::optional<std::string>> &texts) const;

  // Runs such a call as the host does at every message: each expression's text, in their order,
  // gets a slot for the time of the call and is fixed up; afterwards a slot that the fix-up has
  // changed goes to the free fix-up, and what is then in the slot is freed. If a fix-up fails the
  // function isn't run, the expressions before it are given up likewise, the failing one's text is
  // lost, and the result is -1.
  int run_expressions(const command &call, const std::vector<std::string> &texts,
                      sip_msg &msg) const;

  // Runs the function as KSR.x.modf of another script language does: all parameters are fixed up
  // now. In Lua (JavaScript and Ruby are alike) every slot goes to the free fix-up, changed or not,
  // and the texts are freed after that; what was made before a fix-up failed is lost. In Python the
  // texts are the interpreter's own, the second of at most two is fixed up first, and what is in
  // the slots is freed as it is. The result is -1 if a fix-up fails.
  enum class language { lua, python };
  int run_modf(language from, const std::string &name, const std::vector<std::string> &texts,
               sip_msg &msg) const;

  // Fixes up and runs at once.
  int run(const std::string &name, const std::vector<std::string> &texts, sip_msg &msg) const;

  // Closes the file; true if the image is gone from the process, so that the next load starts with
  // fresh static data. For a linked-in module nothing happens, and the result is false.
  bool unload();

 private:
  friend std::unique_ptr<loaded_module> load_module(const std::string &path, std::string *error);
  loaded_module(const module_exports_t &exports, void *handle, std::string path);
  void *find_symbol(const std::string &name) const;
  const param_export_t *find_param(const std::string &name, unsigned int type) const;

  const module_exports_t *table;
  void *image;
  std::string file;
};

// Opens a module's file with all its symbols bound at once and finds `exports` in it. Null with an
// explanation in *error (if given) when either fails.
std::unique_ptr<loaded_module> load_module(const std::string &path, std::string *error = nullptr);

}  // namespace standin
