// Fix-ups of string parameters and variables, their values, and name=value items.
#include "tests/standin/params.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "tests/standin/calls.h"
#include "tests/standin/memory.h"
#include "tests/standin/pv.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

constexpr int LITERAL_TEXT = 5;  // the type word of a parameter that is a text of the script
constexpr int FPARAM_FORMAT = 1 << 8;
constexpr int OUT_OF_MEMORY = -2;

params_order order = params_order::reversed;

std::set<const void *> &slots() {
  static auto &only = *new std::set<const void *>;
  return only;
}

// The parsed variable with the text it came from, so that a free fix-up could restore it.
struct pvar_slot {
  pv_spec_t spec;
  void *text;
};

void skip(str *text, int n) {
  text->s += n;
  text->len -= n;
}

void skip_blanks(str *text) {
  while (text->len > 0 && is_blank(*text->s)) skip(text, 1);
}

bool ends_name(char c) { return is_blank(c) || c == ',' || c == '=' || c == ';'; }
bool ends_token(char c) { return is_blank(c) || c == ',' || c == ';'; }

str take_name(str *text) {
  str name = {text->s, 0};
  while (name.len < text->len && !ends_name(name.s[name.len])) ++name.len;
  skip(text, name.len);
  return name;
}

bool take_body(str *text, str *body) {
  const char quote = *text->s;
  if (quote == '"' || quote == '\'') {
    const void *end =
        text->len < 2 ? nullptr : memchr(text->s + 1, quote, static_cast<size_t>(text->len) - 1);
    if (end == nullptr) return false;
    *body = {text->s + 1, static_cast<int>(static_cast<const char *>(end) - text->s) - 1};
    skip(text, body->len + 2);
    return true;
  }
  *body = {text->s, 0};
  while (body->len < text->len && !ends_token(body->s[body->len])) ++body->len;
  skip(text, body->len);
  return body->len > 0;
}

enum class item_end { more, last, bad };

item_end take_item(str *text, param_t *item) {
  *item = {};
  item->name = take_name(text);
  item->len = item->name.len;
  skip_blanks(text);
  if (text->len > 0 && *text->s == '=') {
    skip(text, 1);
    skip_blanks(text);
    if (text->len == 0)
      item->body = {text->s, 0};
    else if (!take_body(text, &item->body))
      return item_end::bad;
    item->len = static_cast<int>(text->s - item->name.s);
    skip_blanks(text);
  }
  if (text->len == 0 || *text->s == ',' || *text->s == '>') return item_end::last;
  if (*text->s != ';') return item_end::bad;
  skip(text, 1);
  skip_blanks(text);
  return text->len == 0 ? item_end::bad : item_end::more;
}

fparam_t *new_fparam(int type, void *text) {
  auto *param = static_cast<fparam_t *>(core_pkg_malloc(sizeof(fparam_t), "fix_param", __LINE__));
  if (param == nullptr) return nullptr;
  *param = {};
  param->orig = static_cast<char *>(text);
  param->type = type;
  param->fixed = &param->v;
  return param;
}

pv_elem_t *&format_of(fparam_t *param) { return *reinterpret_cast<pv_elem_t **>(&param->v); }

void restore(void **slot) {
  auto *param = static_cast<fparam_t *>(*slot);
  *slot = param->orig;
  if (param->type == FPARAM_FORMAT) free_format(format_of(param));
  core_pkg_free(param);
}

int fix_text(void **slot) {
  fparam_t *param = new_fparam(FPARAM_STR, *slot);
  if (param == nullptr) return OUT_OF_MEMORY;
  param->v.text = {param->orig, static_cast<int>(strlen(param->orig))};
  *slot = param;
  return 0;
}

int fix_format(void **slot) {
  fparam_t *param = new_fparam(FPARAM_FORMAT, *slot);
  if (param == nullptr) return -1;
  str text = {param->orig, static_cast<int>(strlen(param->orig))};
  if (parse_format(&text, &format_of(param)) < 0) {
    core_pkg_free(param);
    return -1;
  }
  *slot = param;
  if (format_of(param)->spec != nullptr) return 0;
  restore(slot);
  return fix_text(slot);
}

// The host takes whatever it is given for one.
bool is_record(const void *slot) {
  const std::vector<block_info> blocks = live_blocks(pool::pkg);
  return std::any_of(blocks.begin(), blocks.end(), [slot](const block_info &block) {
    return block.address == slot && block.size == sizeof(fparam_t);
  });
}

// Room in turn for printed parameters, as the host has it: a result lives until the buffer's turn
// comes again.
char *print_buffer(int *size) {
  static char buffers[10][8192];
  static unsigned int next = 0;
  *size = sizeof(buffers[0]);
  return buffers[next++ % 10];
}

}  // namespace

parameter_slot::parameter_slot(const std::string &text)
    : type(LITERAL_TEXT), data(core_pkg_malloc(text.size() + 1, "script", __LINE__)), first(data) {
  if (data != nullptr) memcpy(data, text.c_str(), text.size() + 1);
  slots().insert(&data);
}

parameter_slot::parameter_slot(borrowed_text text)
    : type(LITERAL_TEXT), data(text.text), first(text.text) {
  slots().insert(&data);
}

parameter_slot::~parameter_slot() { slots().erase(&data); }

void set_params_order(params_order wanted) { order = wanted; }
bool params_forward() { return order == params_order::forward; }
void reset_params() { order = params_order::reversed; }

int parse_items(str *text, param_t **items) {
  if (text == nullptr || items == nullptr) return -1;
  *items = nullptr;
  if (text->s == nullptr || text->len <= 0) return 0;
  param_t **tail = items;
  while (true) {
    auto *item = static_cast<param_t *>(core_pkg_malloc(sizeof(param_t), "parse_params", __LINE__));
    if (item == nullptr) break;
    const item_end end = take_item(text, item);
    if (end == item_end::bad) {
      core_pkg_free(item);
      break;
    }
    if (params_forward()) {
      *tail = item;
      tail = &item->next;
    } else {
      item->next = *items;
      *items = item;
    }
    if (end == item_end::last) return 0;
  }
  free_items(*items);
  *items = nullptr;
  return -2;
}

void free_items(param_t *items) {
  while (items != nullptr) {
    param_t *next = items->next;
    core_pkg_free(items);
    items = next;
  }
}

int str_fparam(str *out, sip_msg *msg, fparam_t *param) {
  if (param->type == FPARAM_STR) {
    *out = param->v.text;
    return 0;
  }
  if (param->type != FPARAM_FORMAT) return -1;
  out->s = print_buffer(&out->len);
  if (print_format(msg, format_of(param), out->s, &out->len) == 0) return 0;
  out->len = 0;
  return -1;
}

}  // namespace standin

int fixup_pvar_null(void **param, int param_no) {
  if (standin::call_fails("fixup_pvar_null") || param_no != 1) return -1;
  const std::string_view name = standin::trimmed(static_cast<char *>(*param));
  if (name.empty() || name[0] != '$') return -1;
  auto *slot = static_cast<standin::pvar_slot *>(
      standin::core_pkg_malloc(sizeof(standin::pvar_slot), __func__, __LINE__));
  if (slot == nullptr) return -1;
  if (standin::parse_spec(standin::str_of(name), &slot->spec) == nullptr) {
    standin::core_pkg_free(slot);
    return -1;
  }
  slot->text = *param;
  *param = slot;
  return 0;
}

int fixup_spve_spve(void **param, int param_no) {
  // The host reads the word before the slot, which is there only in its own parameter records.
  if (standin::slots().count(param) == 0)
    standin::note_misuse("fixup_spve_spve on a slot that isn't part of a parameter record");
  if (standin::call_fails("fixup_spve_spve") || param_no > 2) return -1;
  return standin::fix_format(param);
}

int fixup_free_spve_spve(void **param, int param_no) {
  if (standin::call_fails("fixup_free_spve_spve")) return -1;
  if (param == nullptr || *param == nullptr) return 0;
  if (param_no > 2) return -1;  // and nothing is touched
  if (standin::is_record(*param))
    standin::restore(param);
  else
    standin::note_misuse("fixup_free_spve_spve on a slot that holds no record of its own");
  return 0;
}

int get_str_fparam(str *value, sip_msg *msg, fparam_t *param) {
  if (standin::call_fails("get_str_fparam")) return -1;
  const int result = standin::str_fparam(value, msg, param);
  if (result == 0 && standin::call_fails("get_str_fparam.text")) *value = {nullptr, 0};
  return result;
}

int parse_params(str *text, int param_class, param_hooks_t *hooks, param_t **params) {
  if (hooks != nullptr) *hooks = {};
  if (param_class != PARAM_CLASS_ANY)
    standin::note_misuse("parse_params with a class that the stand-in doesn't know");
  if (!standin::call_fails("parse_params")) return standin::parse_items(text, params);
  if (params != nullptr) *params = nullptr;
  return -2;
}

void free_params(param_t *params) {
  standin::call_fails("free_params");
  standin::free_items(params);
}
