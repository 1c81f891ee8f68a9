// The scanner of the SQL-like statements: small routines that walk a terminated text, which the
// statement functions string together in the order of their grammar.
//
// White space is the blank and nothing else. Keywords are capitals and are compared as prefixes.
// There is no quoting and no escape; a list ends at the first blank. In a pair-list '' is the empty
// text. None of the list routines tells where it ended: the callers skip a list as one word. All
// blocks are private memory. Nothing here takes a lock.
#pragma once

#include <cstdint>

#include "host/memory.h"
#include "tables/tarn_tbl.h"

// First position that isn't a blank; null at the end of the text or for a null text.
const char *skip_white_spaces(const char *text);

// First blank at or behind text; null at the end of the text or for a null text.
const char *go_to_next_white_space(const char *text);

// Position behind the token and the blanks that follow it. Null, logged, if something else stands
// there, and, silently, if nothing follows.
const char *look_for_token(const char *text, const char *token);

// The next word as a table name in a new block of TARN_NAME_SIZE. Null, logged but for a word that
// is too long for a table name.
char *get_table_name_from_query(const char *text);

// Names of a list, each a terminated text in the same block as the array.
char **get_fields_name(const char *text, const tarn_tbl *table, int32_t *count);

// The columns of count names, or null, logged, for a name that is no column's.
int32_t *validate_field_list(char *const *names, const tarn_tbl *table, int32_t count);

// The values of an insert in column order, one terminated text per column, empty for columns that
// positions don't name; the text of column 0 has room for an index. Null, logged, for fewer values
// than names. One block.
char **generate_value_list(const char *text, const tarn_tbl *table, const int32_t *positions,
                           int32_t count);

// A pair-list as an array in column order, null for columns that aren't named. The texts lie in a
// block of their own, which texts takes over. They stand 32 bytes apart, so that a value of 32
// characters or more loses its tail to the next pair's, if another pair follows. Null, logged, for
// a bad list.
char **generate_pair_list(const char *text, const tarn_tbl *table, pkg_owner<char> *texts);
