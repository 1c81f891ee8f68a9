// XAVPs made from text, on both of the host's roads.
#include "tests/standin/calls.h"
#include "tests/standin/memory.h"
#include "tests/standin/pv.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

std::map<std::string, std::vector<xavp_items>, std::less<>> &store() {
  static auto &only = *new std::map<std::string, std::vector<xavp_items>, std::less<>>;
  return only;
}

std::vector<explode_call> &history() {
  static auto &only = *new std::vector<explode_call>;
  return only;
}

bool make_xavp(str params, str xavp) {
  if (params.s == nullptr || xavp.s == nullptr || params.len <= 0 || xavp.len <= 0) return false;
  if (params.s[params.len - 1] == ';') --params.len;
  param_t *items = nullptr;
  if (parse_items(&params, &items) < 0) return false;
  xavp_items made;
  bool named = items != nullptr;
  for (const param_t *item = items; item != nullptr; item = item->next) {
    named = named && item->name.len > 0;
    made.insert(params_forward() ? made.end() : made.begin(),
                {std::string(view_of(item->name)), std::string(view_of(item->body))});
  }
  free_items(items);
  if (!named) return false;
  auto &list = store()[std::string(view_of(xavp))];
  list.insert(list.begin(), std::move(made));
  return true;
}

int explode(str params, str xavp, bool ninth) {
  explode_call call = {std::string(view_of(params)), std::string(view_of(xavp)), ninth, false};
  call.made = !call_fails("explode_params") && make_xavp(params, xavp);
  history().push_back(call);
  return call.made ? 0 : -1;
}

}  // namespace

int explode_ninth(str *params, str *xavp) {
  return params == nullptr || xavp == nullptr ? -1 : explode(*params, *xavp, true);
}

int explode_exported(sip_msg *msg, char *params, char *xavp) {
  str first = {}, second = {};
  if (str_fparam(&first, msg, reinterpret_cast<fparam_t *>(params)) != 0 ||
      str_fparam(&second, msg, reinterpret_cast<fparam_t *>(xavp)) != 0)
    return -1;
  return explode(first, second, false) < 0 ? -1 : 1;
}

std::vector<xavp_items> xavps(const std::string &name) {
  const auto found = store().find(name);
  return found != store().end() ? found->second : std::vector<xavp_items>();
}

value xavp_item(const std::string &name, size_t index, const std::string &item) {
  const std::vector<xavp_items> list = xavps(name);
  if (index < list.size())
    for (const auto &[key, content] : list[index])
      if (key == item) return content;
  return {};
}

void clear_xavps() { store().clear(); }
const std::vector<explode_call> &explode_calls() { return history(); }
void clear_explode_calls() { history().clear(); }

}  // namespace standin
