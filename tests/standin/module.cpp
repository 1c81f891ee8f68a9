// The loader and the script's side of a module.
#include "tests/standin/module.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tests/standin/calls.h"
#include "tests/standin/memory.h"
#include "tests/standin/whole_text.h"

namespace standin {
bool command::accepted() const {
  return exported != nullptr &&
         std::none_of(fixups.begin(), fixups.end(), [](int result) { return result < 0; });
}

int run_function(const script_function &function, const std::vector<char *> &given, sip_msg &msg) {
  switch (given.size()) {
    case 0:
      return function.two(&msg, nullptr, nullptr);
    case 1:
      return function.two(&msg, given[0], nullptr);
    case 2:
      return function.two(&msg, given[0], given[1]);
    case 3:
      return function.three(&msg, given[0], given[1], given[2]);
    case 4:
      return function.four(&msg, given[0], given[1], given[2], given[3]);
    case 5:
      return function.five(&msg, given[0], given[1], given[2], given[3], given[4]);
    case 6:
      return function.six(&msg, given[0], given[1], given[2], given[3], given[4], given[5]);
    default:
      throw std::logic_error("more than six parameters");
  }
}

loaded_module::loaded_module(const module_exports_t &exports) : table(&exports), image(nullptr) {}

loaded_module::loaded_module(const module_exports_t &exports, void *handle, std::string path)
    : table(&exports), image(handle), file(std::move(path)) {}

loaded_module::~loaded_module() { unload(); }

void *loaded_module::find_symbol(const std::string &name) const {
  return image != nullptr ? dlsym(image, name.c_str()) : nullptr;
}

const param_export_t *loaded_module::find_param(const std::string &name, unsigned int type) const {
  if (table->params == nullptr) return nullptr;
  for (const param_export_t *row = table->params; row->name != nullptr; ++row)
    if (name == row->name && row->type == type) return row;
  return nullptr;
}

bool loaded_module::set_param(const std::string &name, int number) {
  const param_export_t *row = find_param(name, PARAM_INT);
  if (row == nullptr) return false;
  *static_cast<int *>(row->param_pointer) = number;
  return true;
}

bool loaded_module::set_param(const std::string &name, const std::string &text) {
  const param_export_t *row = find_param(name, PARAM_STRING);
  if (row == nullptr) return false;
  char *copy = static_cast<char *>(core_pkg_malloc(text.size() + 1, "set_mod_param", __LINE__));
  if (copy != nullptr) memcpy(copy, text.c_str(), text.size() + 1);
  *static_cast<char **>(row->param_pointer) = copy;
  return copy != nullptr;
}

int loaded_module::init() { return table->init_mod_f != nullptr ? table->init_mod_f() : 0; }

int loaded_module::child_init(int rank) {
  return table->init_child_f != nullptr ? table->init_child_f(rank) : 0;
}

void loaded_module::destroy() {
  if (table->destroy_mod_f != nullptr) table->destroy_mod_f();
}

const cmd_export_t *loaded_module::find(const std::string &name, int param_no) const {
  if (table->cmds == nullptr) return nullptr;
  for (const cmd_export_t *row = table->cmds; row->name != nullptr; ++row)
    if (name == row->name && row->param_no == param_no) return row;
  return nullptr;
}

command loaded_module::fixup(const std::string &name, const std::vector<std::string> &texts) const {
  command out = unfixed(name, texts);
  run_fixups(&out);
  return out;
}

command loaded_module::unfixed(const std::string &name,
                               const std::vector<std::string> &texts) const {
  command out;
  out.exported = find(name, static_cast<int>(texts.size()));
  for (const std::string &text : texts) out.slots.push_back(std::make_unique<parameter_slot>(text));
  return out;
}

void loaded_module::run_fixups(command *unfixed) const {
  command &it = *unfixed;
  if (it.exported == nullptr || it.exported->fixup == nullptr) return;
  if (it.slots.empty()) it.fixups.push_back(it.exported->fixup(nullptr, 0));
  for (size_t i = 0; i < it.slots.size() && it.accepted(); ++i) {
    if (it.slots[i] == nullptr) continue;
    it.serial = last_serial();
    it.fixups.push_back(it.exported->fixup(it.slots[i]->address(), static_cast<int>(i) + 1));
  }
}

int loaded_module::run(const command &call, sip_msg &msg) const {
  if (!call.accepted()) throw std::logic_error("a command that the host would have refused");
  std::vector<char *> given;
  for (const auto &slot : call.slots) {
    if (slot == nullptr) throw std::logic_error("a command with an expression");
    given.push_back(slot->get());
  }
  return run_function(call.exported->function, given, msg);
}

int loaded_module::run(const std::string &name, const std::vector<std::string> &texts,
                       sip_msg &msg) const {
  return run(fixup(name, texts), msg);
}

bool loaded_module::unload() {
  if (image == nullptr) return false;
  keep_block_names();
  watch_literals_of(nullptr);
  dlclose(image);
  image = nullptr;
  table = nullptr;
  void *left = dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (left == nullptr) return true;
  dlclose(left);
  return false;
}

std::unique_ptr<loaded_module> load_module(const std::string &path, std::string *error) {
  void *image = dlopen(path.c_str(), RTLD_NOW);
  void *exports = image != nullptr ? dlsym(image, "exports") : nullptr;
  if (exports == nullptr) {
    if (error != nullptr) *error = dlerror();
    if (image != nullptr) dlclose(image);
    return nullptr;
  }
  watch_literals_of(image);
  return std::unique_ptr<loaded_module>(
      new loaded_module(*static_cast<const module_exports_t *>(exports), image, path));
}

}  // namespace standin
