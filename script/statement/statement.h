// What the four statement functions share: the statement under the scanner's cursor, its table, its
// WHERE list, its limit, and what is said about it. Each prints, scans, locks its table and works.
#pragma once

#include "host/memory.h"
#include "query/query_input.h"
#include "script/params/script_query.h"
#include "tables/tarn_tbl.h"

// The fields of a list, by name and by column.
struct statement_fields {
  pkg_owner<char *> names;
  pkg_owner<int32_t> positions;
  int32_t count = 0;
};

// One pair-list: the query record owns the array, this the texts.
struct pair_list {
  pkg_owner<char> texts;
  query_scope pairs;  // of WHERE a query, of SET the new values
};

struct statement_texts {
  message_text<const char *> printed;  // the statement
  message_text<> scanned;
  message_text<> failed;
  bool fails_unprinted;  // a statement that prints nothing ends in the failure's line as well
};

class statement {
 public:
  explicit statement(const statement_texts &texts) : texts_(texts) {}

  // Prints the statement in slot into query_buf and sets the cursor to its beginning. False,
  // logged, if nothing is printed.
  bool print(sip_msg *msg, const char *slot);

  // Each step moves the cursor on and is false if the statement ends or doesn't fit there; what
  // wants telling is logged.
  bool token(const char *word);
  bool skip_word();
  bool skip_blanks();
  bool read_table();
  bool read_pairs(pair_list *list);

  // WHERE, its list and the limit behind it: the end of three statements.
  bool read_where(pair_list *list);

  // Reads the field list at text, which isn't the cursor's place in every statement.
  bool read_fields(const char *text, statement_fields *fields);

  // Ends the scan, with a line for it.
  void scanned() const;

  // Writes the last line of a failure, where this statement has one. SCRIPT_FAILED.
  int failed() const;

  const char *cursor() const { return cursor_; }
  tarn_tbl *table() const { return table_; }

 private:
  bool read_max(query_in *in);

  const statement_texts &texts_;
  const char *text_ = nullptr;
  const char *cursor_ = nullptr;
  tarn_tbl *table_ = nullptr;
};
