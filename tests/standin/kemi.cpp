// Functions for other script languages.
#include "tests/standin/kemi.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "tests/standin/calls.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

std::vector<sr_kemi_t *> &tables() {
  static auto &only = *new std::vector<sr_kemi_t *>;
  return only;
}

// The values of one call, each text in a block that ends with it.
class call_values {
 public:
  call_values(const std::string &kinds, const std::vector<kemi_value> &values) {
    if (kinds.size() != values.size()) throw std::logic_error("another number of values");
    for (size_t i = 0; i < kinds.size(); i++) add(kinds[i], values[i]);
  }

  str *s(size_t i) { return &all_[i].text; }
  int n(size_t i) const { return all_[i].number; }

 private:
  struct one {
    int number = 0;
    str text = {nullptr, 0};
    std::unique_ptr<char[]> block = {};
  };

  void add(char kind, const kemi_value &value) {
    if ((kind == 'n') != std::holds_alternative<int>(value))
      throw std::logic_error("a value of another kind");
    all_.emplace_back();
    one &added = all_.back();
    if (const int *const number = std::get_if<int>(&value)) added.number = *number;
    const auto *const text = std::get_if<std::string>(&value);
    if (text == nullptr) return;
    added.block.reset(new char[text->size()]);
    std::copy(text->begin(), text->end(), added.block.get());
    added.text = {added.block.get(), static_cast<int>(text->size())};
  }

  std::vector<one> all_;
};

int call_for_number(const kemi_function &f, const std::string &kinds, call_values v, sip_msg *msg) {
  if (kinds.empty()) return f.none(msg);
  if (kinds == "s") return f.s(msg, v.s(0));
  if (kinds == "ss") return f.ss(msg, v.s(0), v.s(1));
  if (kinds == "sn") return f.sn(msg, v.s(0), v.n(1));
  if (kinds == "ns") return f.ns(msg, v.n(0), v.s(1));
  if (kinds == "snn") return f.snn(msg, v.s(0), v.n(1), v.n(2));
  if (kinds == "ssn") return f.ssn(msg, v.s(0), v.s(1), v.n(2));
  if (kinds == "ssnn") return f.ssnn(msg, v.s(0), v.s(1), v.n(2), v.n(3));
  if (kinds == "ssnnn") return f.ssnnn(msg, v.s(0), v.s(1), v.n(2), v.n(3), v.n(4));
  if (kinds == "sssss") return f.sssss(msg, v.s(0), v.s(1), v.s(2), v.s(3), v.s(4));
  throw std::logic_error("kinds that the host can't call: " + kinds);
}

sr_kemi_xval_t *call_for_value(const kemi_function &f, const std::string &kinds, call_values v,
                               sip_msg *msg) {
  if (kinds == "s") return f.value_of_s(msg, v.s(0));
  if (kinds == "sn") return f.value_of_sn(msg, v.s(0), v.n(1));
  throw std::logic_error("kinds that the host can't call for a value: " + kinds);
}

}  // namespace

const std::vector<sr_kemi_t *> &kemi_tables() { return tables(); }
void forget_kemi() { tables().clear(); }

const sr_kemi_t *kemi_find(const std::string &name) {
  for (const sr_kemi_t *table : tables())
    for (const sr_kemi_t *row = table; row->fname.s != nullptr; ++row)
      if (view_of(row->fname) == name) return row;
  return nullptr;
}

std::string kemi_kinds(const sr_kemi_t &row) {
  std::string out;
  for (const int kind : row.ptypes) {
    if (kind == SR_KEMIP_NONE) break;
    out += kind == SR_KEMIP_INT ? 'n' : kind == SR_KEMIP_STR ? 's' : '?';
  }
  return out;
}

kemi_result kemi_call(const sr_kemi_t &row, const std::vector<kemi_value> &values, sip_msg *msg) {
  const std::string kinds = kemi_kinds(row);
  if (row.rtype == SR_KEMIP_INT)
    return {SR_KEMIP_INT, call_for_number(row.func, kinds, {kinds, values}, msg)};
  if (row.rtype != SR_KEMIP_XVAL) throw std::logic_error("a result of another kind");
  const sr_kemi_xval_t *const result = call_for_value(row.func, kinds, {kinds, values}, msg);
  if (result->vtype == SR_KEMIP_STR) return {SR_KEMIP_STR, 0, std::string(view_of(result->v.s))};
  return {result->vtype};
}

}  // namespace standin

int sr_kemi_modules_add(sr_kemi_t *functions) {
  if (standin::call_fails("sr_kemi_modules_add")) return -1;
  standin::tables().push_back(functions);
  return 0;
}
