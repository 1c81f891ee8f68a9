// The AVP list: one list, newest value first, names matched as the host matches them.
#include <strings.h>

#include <algorithm>
#include <list>
#include <stdexcept>

#include "tests/standin/calls.h"
#include "tests/standin/pv.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

struct avp_record {
  bool text_name;
  std::string name;
  long id;
  value content;
};

std::list<avp_record> &avps() {
  static auto &only = *new std::list<avp_record>;
  return only;
}

char mixed(std::string_view name) {
  char mix = 0;
  for (const char c : name) mix = static_cast<char>(mix ^ c);
  return mix;
}

// Small and capital letters are alike to the host only if the bytes of both names, taken together
// by exclusive or, give the same: "ab" isn't "Ab", but "aB" is "Ab".
bool same_name(const avp_record &avp, std::string_view name) {
  return avp.text_name && avp.name.size() == name.size() && mixed(avp.name) == mixed(name) &&
         strncasecmp(avp.name.data(), name.data(), name.size()) == 0;
}

bool same_name(const avp_record &avp, const int_str &name, avp_flags_t name_type) {
  return (name_type & AVP_NAME_STR) != 0 ? same_name(avp, view_of(name.s))
                                         : !avp.text_name && avp.id == name.n;
}

bool read_number(std::string_view digits, long *out) {
  if (digits.empty() || digits.size() > 9) return false;
  *out = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return false;
    *out = *out * 10 + (c - '0');
  }
  return true;
}

// The values of one name from the front, as pointers into the list.
std::vector<avp_record *> values_of(const int_str &name, avp_flags_t name_type) {
  std::vector<avp_record *> out;
  for (avp_record &avp : avps())
    if (same_name(avp, name, name_type)) out.push_back(&avp);
  return out;
}

}  // namespace

// Names with a class prefix ("f.x") are refused here; the host knows some of them.
bool parse_avp_name(str inner, pv_spec_t *spec) {
  const std::string_view text = view_of(inner);
  auto &named = spec->pvp.pvn.u.isname;
  spec->pvp.pvn.type = NAME_INTSTR;
  if (text.size() >= 2 && text[1] == ':') {
    const char type = text[0];
    if (text.size() == 2) return false;
    if (type == 'i' || type == 'I') {
      named.type = 0;
      return read_number(text.substr(2), &named.name.n);
    }
    if (type != 's' && type != 'S') return false;
    inner.s += 2;
    inner.len -= 2;
  } else if (text.find('.') != std::string_view::npos) {
    return false;
  }
  named.type = AVP_NAME_STR;
  named.name.s = inner;
  return true;
}

int get_avp(sip_msg *msg, pv_param_t *param, pv_value_t *out) {
  int_str name;
  avp_flags_t name_type = 0;
  if (avp_name_of(msg, param, &name, &name_type) != 0) return -1;
  const std::vector<avp_record *> found = values_of(name, name_type);
  if (param->pvi.type == INDEX_ALL && !found.empty()) {
    static std::string joined;
    joined.clear();
    for (const avp_record *avp : found) {
      if (!joined.empty()) joined += ", ";
      joined += avp->content.type == value::kind::number ? std::to_string(avp->content.number)
                                                         : avp->content.text;
    }
    return give_text(out, str_of(joined));
  }
  long index = param->pvi.type == INDEX_INT ? param->pvi.u.ival : 0;
  // Counting from the other end, the host finds the newest value alone.
  if (index < 0) index = index + static_cast<long>(found.size()) == 0 ? 0 : -1;
  if (index < 0 || index >= static_cast<long>(found.size())) return give_null(out);
  return give_value(out, found[static_cast<size_t>(index)]->content);
}

int set_avp(sip_msg *msg, pv_param_t *param, int, pv_value_t *in) {
  int_str name;
  avp_flags_t name_type = 0;
  if (avp_name_of(msg, param, &name, &name_type) != 0) return -1;
  const bool all = param->pvi.type == INDEX_ALL;
  const bool null = in == nullptr || (in->flags & VALUE_NULL) != 0;
  if (all || null) {
    for (const avp_record *gone : values_of(name, name_type)) {
      avps().remove_if([gone](const avp_record &avp) { return &avp == gone; });
      if (!all) break;
    }
  }
  if (null) return 0;
  int_str content;
  avp_flags_t flags = name_type;
  if ((in->flags & PV_TYPE_INT) != 0) {
    content.n = in->ri;
  } else {
    content.s = in->rs;
    flags |= AVP_VAL_STR;
  }
  return add_avp_value(flags, name, content);
}

int add_avp_value(avp_flags_t flags, int_str name, int_str content) {
  const bool text_name = (flags & AVP_NAME_STR) != 0;
  if (text_name ? name.s.s == nullptr || name.s.len == 0 : name.n == 0) return -1;
  if (text_name && name.s.len < 0) {
    note_misuse("add_avp: a name of negative length");
    return -1;
  }
  value kept;
  if ((flags & AVP_VAL_STR) != 0) {
    if (content.s.len < 0 || (content.s.len > 0 && content.s.s == nullptr)) {
      note_misuse("add_avp: a text of negative length or at null");
      return -1;
    }
    kept = std::string(view_of(content.s));
  } else {
    kept = content.n;
  }
  avps().push_front({text_name, text_name ? std::string(view_of(name.s)) : std::string(),
                     text_name ? 0 : name.n, kept});
  return 0;
}

std::vector<value> avp(const std::string &name) {
  std::vector<value> out;
  for (const avp_record &found : avps())
    if (same_name(found, name)) out.push_back(found.content);
  return out;
}

std::vector<value> avp(long id) {
  std::vector<value> out;
  for (const avp_record &found : avps())
    if (!found.text_name && found.id == id) out.push_back(found.content);
  return out;
}

void push_avp(const std::string &name, const value &content) {
  avps().push_front({true, name, 0, content});
}

size_t avp_count() { return avps().size(); }

std::vector<std::string> avp_names() {
  std::vector<std::string> out;
  for (const avp_record &found : avps()) {
    const std::string name = found.text_name ? found.name : "i:" + std::to_string(found.id);
    if (std::find(out.begin(), out.end(), name) == out.end()) out.push_back(name);
  }
  return out;
}

void clear_avps() { avps().clear(); }

}  // namespace standin

int add_avp(avp_flags_t flags, int_str name, int_str value) {
  return standin::call_fails("add_avp") ? -1 : standin::add_avp_value(flags, name, value);
}
