// Calls whose parameters are fixed up when they are made, as the host's interpreter and its modules
// for other script languages make them.
#include <stdexcept>

#include "tests/standin/memory.h"
#include "tests/standin/module.h"

namespace standin {
namespace {

constexpr int HOST_FAILED = -1;

// The expressions of a call, for its time.
class expressions {
 public:
  explicit expressions(const cmd_export_t &row) : row_(row) {}
  expressions(const expressions &) = delete;
  expressions &operator=(const expressions &) = delete;

  ~expressions() {
    for (const one &each : all_) {
      if (!each.slot->untouched() && row_.free_fixup != nullptr)
        row_.free_fixup(each.slot->address(), each.number);
      core_pkg_free(each.slot->get());
    }
  }

  // The value for the function; null if memory is short or the fix-up fails.
  char *add(int number, const std::string &text) {
    auto slot = std::make_unique<parameter_slot>(text);
    if (slot->get() == nullptr) return nullptr;
    if (row_.fixup != nullptr && row_.fixup(slot->address(), number) < 0) return nullptr;
    all_.push_back({number, std::move(slot)});
    return all_.back().slot->get();
  }

 private:
  struct one {
    int number;
    std::unique_ptr<parameter_slot> slot;
  };

  const cmd_export_t &row_;
  std::vector<one> all_;
};

int modf_from_lua(const cmd_export_t &row, const std::vector<std::string> &texts, sip_msg &msg) {
  std::vector<std::unique_ptr<parameter_slot>> slots;
  std::vector<void *> copies;
  bool whole = true;
  for (const std::string &text : texts) {
    slots.push_back(std::make_unique<parameter_slot>(text));
    copies.push_back(slots.back()->get());
    whole = whole && copies.back() != nullptr;
  }
  std::vector<char *> given;
  for (size_t i = 0; whole && i < slots.size(); i++) {
    whole = row.fixup(slots[i]->address(), static_cast<int>(i) + 1) >= 0;
    given.push_back(slots[i]->get());
  }
  int result = HOST_FAILED;
  if (whole) {
    result = run_function(row.function, given, msg);
    for (size_t i = 0; i < slots.size(); i++)
      if (slots[i]->get() != nullptr) row.free_fixup(slots[i]->address(), static_cast<int>(i) + 1);
  }
  for (void *copy : copies)
    if (copy != nullptr) core_pkg_free(copy);
  return result;
}

int modf_from_python(const cmd_export_t &row, const std::vector<std::string> &texts, sip_msg &msg) {
  if (texts.empty() || texts.size() > 2) throw std::logic_error("not a call for Python");
  std::vector<std::string> own = texts;
  std::vector<std::unique_ptr<parameter_slot>> slots;
  for (std::string &text : own)
    slots.push_back(std::make_unique<parameter_slot>(borrowed_text{text.data()}));
  for (size_t i = slots.size(); i-- > 0;)
    if (row.fixup(slots[i]->address(), static_cast<int>(i) + 1) < 0) return HOST_FAILED;
  std::vector<char *> given;
  for (const auto &slot : slots) given.push_back(slot->get());
  const int result = run_function(row.function, given, msg);
  for (char *left : given) core_pkg_free(left);
  return result;
}

}  // namespace

command loaded_module::fixup_with_expressions(
    const std::string &name, const std::vector<std::optional<std::string>> &texts) const {
  command out;
  out.exported = find(name, static_cast<int>(texts.size()));
  for (const auto &text : texts)
    out.slots.push_back(text ? std::make_unique<parameter_slot>(*text) : nullptr);
  run_fixups(&out);
  return out;
}

int loaded_module::run_expressions(const command &call, const std::vector<std::string> &texts,
                                   sip_msg &msg) const {
  if (!call.accepted()) throw std::logic_error("a command that the host would have refused");
  expressions now(*call.exported);
  std::vector<char *> given;
  size_t next = 0;
  for (const auto &slot : call.slots) {
    given.push_back(slot != nullptr
                        ? slot->get()
                        : now.add(static_cast<int>(given.size()) + 1, texts.at(next++)));
    if (given.back() == nullptr) return HOST_FAILED;
  }
  return run_function(call.exported->function, given, msg);
}

int loaded_module::run_modf(language from, const std::string &name,
                            const std::vector<std::string> &texts, sip_msg &msg) const {
  const cmd_export_t *const row = find(name, static_cast<int>(texts.size()));
  if (row == nullptr || row->fixup == nullptr || row->free_fixup == nullptr)
    throw std::logic_error("a function that other languages can't call");
  return from == language::lua ? modf_from_lua(*row, texts, msg)
                               : modf_from_python(*row, texts, msg);
}

}  // namespace standin
