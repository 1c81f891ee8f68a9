// The names of pseudo-variables, script variables, and reading, writing and printing of values.
#include "tests/standin/pv.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tests/standin/calls.h"
#include "tests/standin/text.h"

namespace standin {

struct var_record {
  pv_spec_t trap = {};
  value content = 0;
};

namespace {

int get_plain(sip_msg *msg, pv_param_t *param, pv_value_t *out) {
  const auto found = msg->values.find(std::string(pv_name_at(param->pvi.u.ival).name));
  return found != msg->values.end() ? give_value(out, found->second) : give_null(out);
}

int set_plain(sip_msg *msg, pv_param_t *param, int, pv_value_t *in) {
  msg->values[std::string(pv_name_at(param->pvi.u.ival).name)] = take_value(in);
  return 0;
}

std::string header_key(std::string_view name) {
  std::string key = "hdr(" + std::string(name) + ")";
  std::transform(key.begin(), key.end(), key.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return key;
}

int get_header(sip_msg *msg, pv_param_t *param, pv_value_t *out) {
  std::string_view name = view_of(param->pvn.u.isname.name.s);
  pv_value_t inner;
  if (param->pvn.type == NAME_PVAR) {
    if (get_spec_value(msg, static_cast<pv_spec_t *>(param->pvn.u.dname), &inner) != 0) return -1;
    name = view_of(inner.rs);
  }
  const auto found = msg->values.find(header_key(name));
  return found != msg->values.end() ? give_value(out, found->second) : give_null(out);
}

int get_nothing(sip_msg *, pv_param_t *, pv_value_t *out) { return give_null(out); }

int get_var(sip_msg *, pv_param_t *param, pv_value_t *out) {
  return give_value(out, var_content(param->pvn.u.dname));
}

int set_var_value(sip_msg *, pv_param_t *param, int, pv_value_t *in) {
  const value content = take_value(in);
  var_content(param->pvn.u.dname) = content.type == value::kind::null ? value(0) : content;
  return 0;
}

// Where an AVP's name may be another variable, the host keeps that variable's spec; for a script
// variable it keeps its own record in the same place. Asked for the AVP name of a script variable,
// the host would call whatever stands in that record.
int get_through_var_record(sip_msg *, pv_param_t *, pv_value_t *) {
  note_misuse("pv_get_avp_name on a script variable: the host would follow a dead pointer");
  return -1;
}

constexpr int OTHER = 22;

constexpr pv_name_row ROWS[] = {
    {"avp", PVT_AVP, 0, true, true, get_avp, set_avp},
    {"var", PVT_SCRIPTVAR, 0, true, false, get_var, set_var_value},
    {"hdr", 5, 0, true, true, get_header, nullptr},
    {"null", 2, 0, false, false, get_nothing, nullptr},
    {"ru", 6, 0, false, false, get_plain, set_plain},
    {"rU", 7, 1, false, false, get_plain, set_plain},
    {"rd", 8, 2, false, false, get_plain, set_plain},
    {"rp", OTHER, 3, false, false, get_plain, set_plain},
    {"du", 9, 0, false, false, get_plain, set_plain},
    {"br", 11, 0, false, false, get_plain, set_plain},
    {"fu", 12, 1, false, false, get_plain, set_plain},
    {"fU", OTHER, 2, false, false, get_plain, set_plain},
    {"fd", OTHER, 3, false, false, get_plain, set_plain},
    {"ft", OTHER, 4, false, false, get_plain, nullptr},
    {"fn", OTHER, 5, false, false, get_plain, set_plain},
    {"tu", 13, 1, false, false, get_plain, set_plain},
    {"tU", OTHER, 2, false, false, get_plain, set_plain},
    {"td", OTHER, 3, false, false, get_plain, set_plain},
    {"tt", OTHER, 4, false, false, get_plain, nullptr},
    {"tn", OTHER, 5, false, false, get_plain, set_plain},
    {"ou", 14, 0, false, false, get_plain, nullptr},
    {"rb", 16, 0, false, false, get_plain, nullptr},
    {"rm", OTHER, 0, false, false, get_plain, nullptr},
    {"rs", OTHER, 0, false, false, get_plain, nullptr},
    {"rr", OTHER, 0, false, false, get_plain, nullptr},
    {"si", OTHER, 0, false, false, get_plain, nullptr},
    {"sp", OTHER, 0, false, false, get_plain, nullptr},
    {"Ri", OTHER, 0, false, false, get_plain, nullptr},
    {"Rp", OTHER, 0, false, false, get_plain, nullptr},
    {"ct", OTHER, 0, false, false, get_plain, nullptr},
    {"ci", OTHER, 0, false, false, get_plain, nullptr},
    {"cs", OTHER, 0, false, false, get_plain, nullptr},
    {"ua", OTHER, 0, false, false, get_plain, nullptr},
    {"au", OTHER, 1, false, false, get_plain, nullptr},
    {"ar", OTHER, 2, false, false, get_plain, nullptr},
    {"ad", OTHER, 4, false, false, get_plain, nullptr},
    {"ml", OTHER, 0, false, false, get_plain, nullptr},
    {"proto", OTHER, 0, false, false, get_plain, nullptr},
};

std::map<std::string, std::unique_ptr<var_record>, std::less<>> &vars() {
  static auto &only = *new std::map<std::string, std::unique_ptr<var_record>, std::less<>>;
  return only;
}

std::string number_text(long number) { return std::to_string(number); }

}  // namespace

value value::unreadable() {
  value out;
  out.type = kind::unreadable;
  return out;
}

bool value::operator==(const value &other) const {
  return type == other.type && number == other.number && text == other.text;
}

std::ostream &operator<<(std::ostream &out, const value &shown) {
  switch (shown.type) {
    case value::kind::null:
      return out << "null";
    case value::kind::number:
      return out << shown.number;
    case value::kind::text:
      return out << '"' << shown.text << '"';
    case value::kind::unreadable:
      break;
  }
  return out << "unreadable";
}

const pv_name_row *find_pv_name(std::string_view name, int *row) {
  const auto *found = std::find_if(std::begin(ROWS), std::end(ROWS),
                                   [name](const pv_name_row &r) { return r.name == name; });
  *row = static_cast<int>(found - ROWS);
  return found != std::end(ROWS) ? found : nullptr;
}

const pv_name_row &pv_name_at(int row) { return ROWS[row]; }

var_record *find_var(std::string_view name) {
  const auto found = vars().find(name);
  if (found != vars().end()) return found->second.get();
  auto &made = vars()[std::string(name)];
  made = std::make_unique<var_record>();
  made->trap.type = PVT_SCRIPTVAR;
  made->trap.getf = get_through_var_record;
  return made.get();
}

void *var_link(var_record *var) { return var; }
value &var_content(void *link) { return static_cast<var_record *>(link)->content; }
void clear_vars() { vars().clear(); }

int give_null(pv_value_t *out) {
  static char nothing[] = "";
  *out = {{nothing, 0}, 0, VALUE_NULL};
  return 0;
}

int give_number(pv_value_t *out, long number) {
  static char digits[24];
  const std::string text = number_text(number);
  memcpy(digits, text.c_str(), text.size() + 1);
  *out = {{digits, static_cast<int>(text.size())}, number, VALUE_STR | PV_VAL_INT | PV_TYPE_INT};
  return 0;
}

int give_text(pv_value_t *out, str text) {
  *out = {text, 0, VALUE_STR};
  return 0;
}

int give_value(pv_value_t *out, const value &content) {
  switch (content.type) {
    case value::kind::null:
      return give_null(out);
    case value::kind::number:
      return give_number(out, content.number);
    case value::kind::text:
      return give_text(out, str_of(content.text));
    case value::kind::unreadable:
      break;
  }
  return -1;
}

value take_value(const pv_value_t *in) {
  if (in == nullptr || (in->flags & VALUE_NULL) != 0) return {};
  if ((in->flags & PV_TYPE_INT) != 0) return in->ri;
  return std::string(view_of(in->rs));
}

int get_spec_value(sip_msg *msg, pv_spec_t *spec, pv_value_t *out) {
  if (msg == nullptr || spec == nullptr || spec->getf == nullptr || out == nullptr ||
      spec->type == PVT_ANY)
    return -1;
  *out = {};
  return spec->getf(msg, &spec->pvp, out);
}

int set_spec_value(sip_msg *msg, pv_spec_t *spec, int op, pv_value_t *in) {
  if (spec == nullptr || spec->setf == nullptr) return 0;  // the host ignores this too
  return spec->setf(msg, &spec->pvp, op, in);
}

int print_format(sip_msg *msg, pv_elem_t *format, char *buf, int *len) {
  if (msg == nullptr || format == nullptr || buf == nullptr || len == nullptr || *len <= 0)
    return -1;
  int used = 0;
  const auto append = [&](std::string_view text) {
    if (static_cast<size_t>(used) + text.size() >= static_cast<size_t>(*len)) return false;
    text.copy(buf + used, text.size());
    used += static_cast<int>(text.size());
    return true;
  };
  buf[0] = '\0';
  for (pv_elem_t *element = format; element != nullptr; element = element->next) {
    if (!append(view_of(element->text))) return -2;
    pv_value_t out;
    if (element->spec == nullptr || get_spec_value(msg, element->spec, &out) != 0) continue;
    if (!append((out.flags & VALUE_NULL) != 0 ? "<null>" : view_of(out.rs))) return -2;
  }
  buf[used] = '\0';
  *len = used;
  return 0;
}

int avp_name_of(sip_msg *msg, pv_param_t *param, int_str *name, avp_flags_t *name_type) {
  if (param == nullptr || name == nullptr || name_type == nullptr) return -1;
  *name = {};
  name->s = {};
  *name_type = 0;
  if (param->pvn.type == NAME_INTSTR) {
    *name_type = param->pvn.u.isname.type;
    if ((*name_type & AVP_NAME_STR) != 0)
      name->s = param->pvn.u.isname.name.s;
    else
      name->n = param->pvn.u.isname.name.n;
    return 0;
  }
  pv_value_t inner;
  if (get_spec_value(msg, static_cast<pv_spec_t *>(param->pvn.u.dname), &inner) != 0 ||
      (inner.flags & (VALUE_NULL | VALUE_EMPTY)) != 0)
    return -1;
  if ((inner.flags & PV_TYPE_INT) != 0 && (inner.flags & PV_VAL_INT) != 0) {
    name->n = inner.ri;
  } else {
    name->s = inner.rs;
    *name_type = AVP_NAME_STR;
  }
  return 0;
}

void set_value(sip_msg &msg, const std::string &variable, const value &content) {
  pv_spec_t *spec =
      spec_length(variable) == static_cast<int>(variable.size()) ? cached_spec(variable) : nullptr;
  if (spec == nullptr) throw std::invalid_argument("no pseudo-variable: " + variable);
  if (spec->type == PVT_SCRIPTVAR) {
    var_content(spec->pvp.pvn.u.dname) = content;
  } else if (spec->type == PVT_AVP) {
    pv_value_t none = {};
    none.flags = VALUE_NULL;
    while (!(get_value(msg, variable) == value())) set_avp(&msg, &spec->pvp, 0, &none);
    pv_value_t in;
    if (content.type != value::kind::null && give_value(&in, content) == 0)
      set_avp(&msg, &spec->pvp, 0, &in);
  } else if (spec->getf == get_header) {
    msg.values[header_key(view_of(spec->pvp.pvn.u.isname.name.s))] = content;
  } else {
    msg.values[std::string(pv_name_at(spec->pvp.pvi.u.ival).name)] = content;
  }
}

value get_value(sip_msg &msg, const std::string &variable) {
  pv_value_t out;
  pv_spec_t *spec = cached_spec(variable);
  if (spec == nullptr || get_spec_value(&msg, spec, &out) != 0) return value::unreadable();
  return take_value(&out);
}

void set_var(const std::string &name, const value &content) { find_var(name)->content = content; }
value var(const std::string &name) { return find_var(name)->content; }

void reset_values() {
  clear_avps();
  clear_xavps();
  clear_explode_calls();
  clear_spec_cache();
  clear_vars();
}

}  // namespace standin

int pv_printf(sip_msg *msg, pv_elem_t *format, char *buf, int *len) {
  if (standin::call_fails("pv_printf")) return -1;
  const int result = standin::print_format(msg, format, buf, len);
  if (result == 0 && standin::call_fails("pv_printf.length")) *len = -1;
  return result;
}

int pv_get_spec_value(sip_msg *msg, pv_spec_t *spec, pv_value_t *value) {
  return standin::call_fails("pv_get_spec_value") ? -1 : standin::get_spec_value(msg, spec, value);
}

int pv_set_spec_value(sip_msg *msg, pv_spec_t *spec, int op, pv_value_t *value) {
  return standin::call_fails("pv_set_spec_value") ? -1
                                                  : standin::set_spec_value(msg, spec, op, value);
}

int pv_get_avp_name(sip_msg *msg, pv_param_t *param, int_str *name, avp_flags_t *name_type) {
  return standin::call_fails("pv_get_avp_name") ? -1
                                                : standin::avp_name_of(msg, param, name, name_type);
}
