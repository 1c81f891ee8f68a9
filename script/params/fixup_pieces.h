// What the fix-ups share. Each piece gives what the fix-up gives to the host: 0, or a negative
// number, logged, with the slot's text left as it is.
#pragma once

#include "host/abi.h"
#include "host/message_text.h"

// What a parameter's messages are: its number, and its text where it has one.
struct format_texts {
  message_text<int> missing;
  message_text<const char *> refused;
};

inline constexpr format_texts FORMAT_TEXTS{"NULL format in param n %d\n", "Wrong format [%s]\n"};

struct name_list_kind {
  message_text<int> missing;
  message_text<int, const char *> refused;
  pvname_list_t *(*parse)(str *text);
};

// The text in a slot as a counted one.
str slot_text(void *const *param);

// False, logged, for a slot without a text.
bool is_given(void *const *param, int param_no, const message_text<int> &missing);

// Turns text, which is terminated and stays while the slot is used, into the slot's format.
int put_format(void **param, str text, const message_text<const char *> &refused);

// Turns the slot's text into a format.
int fix_format(void **param, const format_texts &texts, int param_no);

// Turns the slot's text into a list of names.
int fix_name_list(void **param, const name_list_kind &kind, int param_no);

// The same for a list of AVPs with empty places.
int fix_avp_list(void **param, int param_no);

// Checks that the slot's text isn't a negative number.
int check_number_text(void **param, int param_no);

// False, logged as in the pieces for lists and numbers, for a slot without a text.
bool is_text_given(void *const *param, int param_no);

// True for a text that asks for a pseudo-variable.
bool names_pv(const char *text);
