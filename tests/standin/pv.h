// Shared between the stand-in's parts that parse, read and write pseudo-variables.
#pragma once

#include <string>
#include <string_view>

#include "host/imports.h"
#include "tests/standin/values.h"

namespace standin {

inline constexpr int VALUE_NULL = 1;
inline constexpr int VALUE_EMPTY = 2;
inline constexpr int VALUE_STR = 4;
inline constexpr int NAME_INTSTR = 0;
inline constexpr int NAME_PVAR = 1;
inline constexpr int INDEX_INT = 0;
inline constexpr int INDEX_ALL = 2;
inline constexpr int INDEX_NONE = 4;

using pv_getter = int (*)(sip_msg *, pv_param_t *, pv_value_t *);
using pv_setter = int (*)(sip_msg *, pv_param_t *, int, pv_value_t *);

// One name that the host knows behind a dollar sign.
struct pv_name_row {
  std::string_view name;
  int type;
  int number;        // what the host keeps in the spec's numeric name
  bool takes_inner;  // needs (inner), and only then takes one
  bool takes_index;
  pv_getter getf;
  pv_setter setf;  // null: read only
};

// The row of a name, or null. `row` tells its place, which the spec keeps.
const pv_name_row *find_pv_name(std::string_view name, int *row);
const pv_name_row &pv_name_at(int row);

// Parses one pseudo-variable at the start of the text into spec. Gives the place behind it, or
// null. Names inside the spec point into the text.
char *parse_spec(str text, pv_spec_t *spec);

// Length of the pseudo-variable at the start of the text, brackets and all; negative if it doesn't
// end within.
int spec_length(std::string_view text);

// The host's cached spec for that text, parsed from the cache's own copy; null if refused.
pv_spec_t *cached_spec(std::string_view text);
void clear_spec_cache();

// Reads and writes without counting a call from the module.
int get_spec_value(sip_msg *msg, pv_spec_t *spec, pv_value_t *out);
int set_spec_value(sip_msg *msg, pv_spec_t *spec, int op, pv_value_t *in);
int print_format(sip_msg *msg, pv_elem_t *format, char *buf, int *len);
int parse_format(str *text, pv_elem_t **format);
void free_format(pv_elem_t *format);
int avp_name_of(sip_msg *msg, pv_param_t *param, int_str *name, avp_flags_t *name_type);

// Fills a host value. A number's text stands in one static buffer, overwritten by the next number,
// as on the host.
int give_null(pv_value_t *out);
int give_number(pv_value_t *out, long number);
int give_text(pv_value_t *out, str text);
int give_value(pv_value_t *out, const value &content);
value take_value(const pv_value_t *in);

// Script variables: the record behind a name, made when first named.
struct var_record;
var_record *find_var(std::string_view name);
void *var_link(var_record *var);
value &var_content(void *link);
void clear_vars();

// AVPs and XAVPs (avp.cpp, xavp.cpp).
bool parse_avp_name(str inner, pv_spec_t *spec);
int get_avp(sip_msg *msg, pv_param_t *param, pv_value_t *out);
int set_avp(sip_msg *msg, pv_param_t *param, int op, pv_value_t *in);
int add_avp_value(avp_flags_t flags, int_str name, int_str content);
int explode_ninth(str *params, str *xavp);
int explode_exported(sip_msg *msg, char *params, char *xavp);
void clear_explode_calls();

// Parsing of name=value items, and string parameters, without counting a call (params.cpp).
int parse_items(str *text, param_t **items);
void free_items(param_t *items);
bool params_forward();
int str_fparam(str *out, sip_msg *msg, fparam_t *param);

}  // namespace standin
