// Reading pseudo-variables and formats from text, by the host's rules.
#include <algorithm>
#include <memory>
#include <vector>

#include "tests/standin/calls.h"
#include "tests/standin/memory.h"
#include "tests/standin/pv.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

struct cached {
  explicit cached(std::string_view source) : text(source) {}
  std::string text;
  pv_spec_t spec = {};
};

std::map<std::string, std::unique_ptr<cached>, std::less<>> &cache() {
  static auto &only = *new std::map<std::string, std::unique_ptr<cached>, std::less<>>;
  return only;
}

// Specs of inner names that are variables themselves; the host never frees them either.
std::vector<std::unique_ptr<pv_spec_t>> &inner_specs() {
  static auto &only = *new std::vector<std::unique_ptr<pv_spec_t>>;
  return only;
}

bool is_name_char(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         c == '.' || c == '?';
}

// Place of the bracket that closes the one before `from`; npos if it isn't within.
size_t closing(std::string_view text, size_t from, char open, char close) {
  int depth = 1;
  for (size_t i = from; i < text.size() && text[i] != '\0'; ++i) {
    if (text[i] == open) ++depth;
    if (text[i] == close && --depth == 0) return i;
  }
  return std::string_view::npos;
}

str part_of(str text, size_t from, size_t to) {
  return {text.s + from, static_cast<int>(to - from)};
}

int get_marker(sip_msg *, pv_param_t *, pv_value_t *out) {
  static char dollar[] = "$";
  give_text(out, {dollar, 1});
  out->ri = dollar[0];
  out->flags |= PV_VAL_INT;
  return 0;
}

bool parse_inner(const pv_name_row &row, str inner, pv_spec_t *spec) {
  if (inner.s[0] == '$' && row.type != PVT_SCRIPTVAR) {
    inner_specs().push_back(std::make_unique<pv_spec_t>());
    spec->pvp.pvn.type = NAME_PVAR;
    spec->pvp.pvn.u.dname = inner_specs().back().get();
    return parse_spec(inner, inner_specs().back().get()) != nullptr;
  }
  if (row.type == PVT_AVP) return parse_avp_name(inner, spec);
  if (row.type == PVT_SCRIPTVAR) {
    spec->pvp.pvn.type = NAME_PVAR;
    spec->pvp.pvn.u.dname = var_link(find_var(view_of(inner)));
    return true;
  }
  spec->pvp.pvn.u.isname.type = AVP_NAME_STR;
  spec->pvp.pvn.u.isname.name.s = inner;
  return true;
}

bool parse_index(std::string_view index, pv_spec_t *spec) {
  if (index == "*") {
    spec->pvp.pvi.type = INDEX_ALL;
    return true;
  }
  const bool negative = !index.empty() && index[0] == '-';
  if (negative) index.remove_prefix(1);
  if (index.empty()) return false;
  int number = 0;
  for (const char c : index) {
    if (c < '0' || c > '9' || number > 100000) return false;
    number = number * 10 + (c - '0');
  }
  spec->pvp.pvi.type = INDEX_INT;
  spec->pvp.pvi.u.ival = negative ? -number : number;
  return true;
}

}  // namespace

char *parse_spec(str text, pv_spec_t *spec) {
  if (text.s == nullptr || spec == nullptr || text.s[0] != '$') return nullptr;
  touch_byte_behind(text);
  const std::string_view view = view_of(text);
  const auto at = [&view](size_t i) { return i < view.size() ? view[i] : '\0'; };
  *spec = {};
  spec->pvp.pvi.type = INDEX_NONE;
  const bool bracketed = at(1) == '(';
  size_t pos = bracketed ? 2 : 1;
  if (at(pos) == '$') {
    ++pos;
    if (bracketed && at(pos++) != ')') return nullptr;
    spec->type = 3;
    spec->getf = get_marker;
    return text.s + pos;
  }
  const size_t name_from = pos;
  while (is_name_char(at(pos))) ++pos;
  int place = 0;
  const pv_name_row *row = find_pv_name(view.substr(name_from, pos - name_from), &place);
  if (row == nullptr) return nullptr;
  spec->type = row->type;
  spec->getf = row->getf;
  spec->setf = row->setf;
  spec->pvp.pvn.u.isname.name.n = row->number;
  if ((at(pos) == '(') != row->takes_inner) return nullptr;
  if (row->takes_inner) {
    const size_t end = closing(view, pos + 1, '(', ')');
    if (end == std::string_view::npos || end == pos + 1) return nullptr;
    if (!parse_inner(*row, part_of(text, pos + 1, end), spec)) return nullptr;
    pos = end + 1;
  }
  // For variables without an index the host leaves this word alone; here it tells the row.
  spec->pvp.pvi.u.ival = row->takes_index ? 0 : place;
  if (!bracketed) return text.s + pos;
  if (at(pos) == '[') {
    const size_t end = closing(view, pos + 1, '[', ']');
    if (end == std::string_view::npos || !row->takes_index) return nullptr;
    if (!parse_index(view.substr(pos + 1, end - pos - 1), spec)) return nullptr;
    pos = end + 1;
  }
  return at(pos) == ')' ? text.s + pos + 1 : nullptr;
}

int spec_length(std::string_view text) {
  if (text.size() < 2 || text[0] != '$') return -1;
  if (text[1] == '$') return 2;
  size_t pos = 1;
  if (text[1] != '(')
    while (pos < text.size() && is_name_char(text[pos])) ++pos;
  if (pos == text.size() || text[pos] != '(') return static_cast<int>(pos);
  const size_t end = closing(text, pos + 1, '(', ')');
  return end == std::string_view::npos ? -1 : static_cast<int>(end) + 1;
}

pv_spec_t *cached_spec(std::string_view text) {
  const auto found = cache().find(text);
  if (found != cache().end()) return &found->second->spec;
  auto fresh = std::make_unique<cached>(text);
  if (parse_spec(str_of(fresh->text), &fresh->spec) == nullptr) return nullptr;
  return &(cache()[std::string(text)] = std::move(fresh))->spec;
}

void clear_spec_cache() {
  cache().clear();
  inner_specs().clear();
}

void free_format(pv_elem_t *format) {
  while (format != nullptr) {
    pv_elem_t *next = format->next;
    core_pkg_free(format);
    format = next;
  }
}

int parse_format(str *text, pv_elem_t **format) {
  if (text == nullptr || text->s == nullptr || format == nullptr) return -1;
  touch_byte_behind(*text);
  std::string_view rest(text->s, static_cast<size_t>(std::max(text->len, 0)));
  rest = rest.substr(0, rest.find('\0'));
  pv_elem_t **link = format;
  *format = nullptr;
  do {
    auto *element =
        static_cast<pv_elem_t *>(core_pkg_malloc(sizeof(pv_elem_t), __func__, __LINE__));
    if (element == nullptr) break;
    const size_t length = std::min(rest.find('$'), rest.size());
    *element = {str_of(rest.substr(0, length)), nullptr, nullptr};
    *link = element;
    link = &element->next;
    rest.remove_prefix(length);
    if (rest.empty()) return 0;
    const int taken = spec_length(rest);
    if (taken < 0) break;
    element->spec = cached_spec(rest.substr(0, static_cast<size_t>(taken)));
    if (element->spec == nullptr) break;
    rest.remove_prefix(static_cast<size_t>(taken));
    if (rest.empty()) return 0;
  } while (true);
  free_format(*format);
  *format = nullptr;
  return -1;
}

}  // namespace standin

int pv_parse_format(str *text, pv_elem_t **format) {
  if (!standin::call_fails("pv_parse_format")) return standin::parse_format(text, format);
  if (format != nullptr) *format = nullptr;
  return -1;
}

char *pv_parse_spec2(str *text, pv_spec_t *spec, int) {
  if (standin::call_fails("pv_parse_spec2") || text == nullptr) return nullptr;
  return standin::parse_spec(*text, spec);
}

pvname_list_t *parse_pvname_list(str *text, unsigned int type) {
  if (standin::call_fails("parse_pvname_list") || text == nullptr || text->s == nullptr)
    return nullptr;
  pvname_list_t *head = nullptr;
  pvname_list_t **link = &head;
  str rest = *text;
  const auto skip = [&rest](int n) {
    rest.s += n;
    rest.len -= n;
  };
  while (true) {
    while (rest.len > 0 && (*rest.s == ' ' || *rest.s == '\t' || *rest.s == '\n' ||
                            *rest.s == ',' || *rest.s == ';'))
      skip(1);
    if (rest.len <= 0 || *rest.s == '\0') return head;
    pv_spec_t spec;
    char *end = standin::parse_spec(rest, &spec);
    if (end == nullptr || (type != 0 && spec.type != static_cast<int>(type))) break;
    auto *item = static_cast<pvname_list_t *>(
        standin::core_pkg_malloc(sizeof(pvname_list_t), __func__, __LINE__));
    if (item == nullptr) break;
    *item = {spec, nullptr};
    *link = item;
    link = &item->next;
    skip(static_cast<int>(end - rest.s));
  }
  while (head != nullptr) {
    pvname_list_t *next = head->next;
    standin::core_pkg_free(head);
    head = next;
  }
  return nullptr;
}
