// Reading of script parameters for the message in work.
#pragma once

#include <cstdlib>
#include <span>

#include "host/abi.h"
#include "host/message_text.h"
#include "script/params/fixup.h"

// Prints the format in slot into buffer and terminates it. The text, which may be empty, or a null
// text if it can't be printed, doesn't fit, or the slot holds no format.
str print_param(sip_msg *msg, const char *slot, std::span<char> buffer);

// True if something was printed.
inline bool is_printed(const str &text) { return text.s != nullptr && text.len > 0; }

// The same for a parameter that has to print something. If it doesn't, refusal is logged at ERR,
// and the text is null.
str print_or_refuse(sip_msg *msg, const char *slot, std::span<char> buffer,
                    const message_text<> &refusal);

// Reads the number for the message. False, logged, for a pseudo-variable that can't be read or
// holds no integer; not_integer is the message of the latter.
bool read_number(sip_msg *msg, const num_or_pv *param, const message_text<> &not_integer,
                 int32_t *number);

// The number of a column as atoi reads it. Nearly all have one digit.
inline int32_t column_number(const char *text) {
  const bool is_digit = *text >= '0' && *text <= '9';
  return is_digit && text[1] == '\0' ? *text - '0' : atoi(text);
}
