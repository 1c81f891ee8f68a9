// The lowest layer of the query language: a list of fields, cut, unescaped and turned into the
// array of texts that the engine takes.
//
//   \   takes the next character as it is
//   ,   separates the parts of a query; nothing special within a field list
//   |   separates fields
//   *   as a whole field, unescaped: a wildcard, null in the array
//
// A field of no characters is the empty text, which is a value and not a wildcard. Nothing here
// reads past the end of the counted text that it is given.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "host/abi.h"

inline constexpr char FIELD_SEPARATOR = '|';
inline constexpr char PART_SEPARATOR = ',';
inline constexpr char NO_SEPARATOR = '\0';
inline constexpr char FIELD_ESCAPE = '\\';
inline constexpr char WILDCARD[] = "*";

// Cuts the next field out of line. cursor is where it starts, and goes to the character behind the
// separator, or to null when nothing follows. field becomes a slice of line, still escaped. Returns
// the length that the field has once unescaped. A lone backslash at the end of line is dropped with
// a warning and leaves cursor at the end, so that one more, empty, field follows.
uint32_t tarn_memdb_get_next_field(const str &line, char sep, char **cursor, str *field);

// The fields of list in one private block: an array of pointers, null for a wildcard, and behind it
// the unescaped texts. Null when the number of fields isn't *expected (if given) or memory is
// short. The caller gives the block to tarn_memdb_destroy_fields.
char **tarn_memdb_create_fields(const str &list, const uint32_t *expected);

// The same for a list whose marks have been found: their places in a text in which the list begins
// at first. Nothing in it is an escape or a zero byte.
char **tarn_memdb_create_fields(const str &list, std::span<const uint32_t> marks, uint32_t first,
                                const uint32_t *expected);

// Gives a field array back; null is ignored.
void tarn_memdb_destroy_fields(char **fields);

// Decimal number with an optional sign and nothing else. False, with the value reached so far in
// *value, which stops at the limits of 32 bits, for another text. text.s has to be readable even
// for a length of 0.
bool str_to_sint(const str *text, int32_t *value);

// A text for a message, where a null may stand.
inline const char *printable(const char *text) { return text != nullptr ? text : "(null)"; }

inline std::string_view text_of(const str &text) { return {text.s, static_cast<size_t>(text.len)}; }

// The escape layer, most of it as public symbols for other modules that build queries. Nothing in
// here escapes: stored and substituted values go into queries as they are, by design.
extern "C" {
// in without its escapes, written to out->s, which has room for tarn_memdb_unescaped_len(in) bytes;
// sets out->len and writes no terminator.
void tarn_memdb_unescape(const str *in, str *out);

// in with a backslash ahead of each special character, written to out->s, which has room for
// tarn_memdb_escaped_len(in) bytes; sets out->len and writes no terminator. A zero byte counts as
// special.
__attribute__((visibility("default"))) void tarn_memdb_escape(const str *in, str *out);
__attribute__((visibility("default"))) uint32_t tarn_memdb_escaped_len(const str *in);
__attribute__((visibility("default"))) uint32_t tarn_memdb_unescaped_len(const str *in);
}
