// The positional query: table name, comma, field list and, except for an insert, optionally a
// comma and the most rows wanted. What follows a further comma is ignored.
#pragma once

#include <cstdint>
#include <string_view>

#include "host/abi.h"
#include "tables/tarn_tbl.h"

// What the query is parsed for. An update parses its selection as a select.
inline constexpr int32_t OP_INSERT = 1;
inline constexpr int32_t OP_DELETE = 2;
inline constexpr int32_t OP_SELECT = 4;

// A parsed query. The record that tarn_memdb_parse_input filled owns flds until query_in_reset.
struct query_in {
  tarn_tbl *table;  // the registry's
  char **flds;      // one text per column of the table; null is a wildcard
  int32_t max_res;  // most rows to be touched or returned, above 0 or the table's MAX_ROWS
};

// A table's name, cut to its room where it is none.
using table_name_text = char[TARN_NAME_SIZE];

// Parses query, whose text has to be terminated, into in, which then owns flds, and the table's
// name into tbl_name, which the caller has zeroed. A longer name is no table; the buffer then holds
// its beginning for messages. False with the reason logged and nothing owned. Takes no lock.
bool tarn_memdb_parse_input(const str &query, int32_t op, query_in *in, table_name_text &tbl_name);

// The part of it behind the table's name: list is where the field list begins in query, and in has
// the table.
bool parse_field_list(const str &query, char *list, int32_t op, query_in *in);

// The table of that name, which stands at the head of query, with *list at the beginning of the
// field list behind it. Null, logged, if there is no list or no such table.
tarn_tbl *find_query_table(const str &query, std::string_view name, char **list);

// Releases flds and clears the record. Does nothing worse on a cleared record.
void query_in_reset(query_in *in);

// A query_in, cleared at first and reset at the end of the scope.
struct query_scope : query_in {
  query_scope() : query_in{} {}
  ~query_scope() { query_in_reset(this); }
  query_scope(const query_scope &) = delete;
  query_scope &operator=(const query_scope &) = delete;
};
