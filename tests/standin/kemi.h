// The host's side of its other script languages: the table of functions that a module offers, and
// calls of them as from such a language.
//
// Only programs that name something of this offer sr_kemi_modules_add to a module. To the others
// the stand-in is a host without these languages.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/imports.h"

namespace standin {

// The tables handed over, in order. forget_kemi comes ahead of each test; reset doesn't know of it.
const std::vector<sr_kemi_t *> &kemi_tables();
void forget_kemi();

// The row of that name in all tables, or null.
const sr_kemi_t *kemi_find(const std::string &name);

// The kinds of its parameters, s for a text and n for a number, as the host reads them off the row.
std::string kemi_kinds(const sr_kemi_t &row);

// A parameter: a number, a text, or a text without one, as Lua's nil comes.
struct no_text {};
using kemi_value = std::variant<int, std::string, no_text>;

struct kemi_result {
  int kind;  // SR_KEMIP_INT, SR_KEMIP_STR or SR_KEMIP_NULL
  int number = 0;
  std::string text = {};
};

// Calls the function as the host does, by the kinds of its row, each text without a terminator.
// Throws std::logic_error for values of other kinds, or a row that the host couldn't call.
kemi_result kemi_call(const sr_kemi_t &row, const std::vector<kemi_value> &values, sip_msg *msg);

}  // namespace standin
