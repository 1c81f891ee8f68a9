// The steps by which every script function gets from its parameters to a table.
#pragma once

#include "query/query_input.h"
#include "script/params/print_param.h"
#include "tables/tarn_tbl.h"

// Results that a routing script sees; any other positive value reports something.
inline constexpr int SCRIPT_OK = 1;
inline constexpr int SCRIPT_FAILED = -1;
inline constexpr int SCRIPT_NO_ROW = -2;

// What a function calls its query in messages.
struct query_words {
  const char *unprintable;  // whole message
  const char *shown_as;
  const char *purpose;
};

inline constexpr char UNPRINTABLE[] = "Could not print the formatted pv input\n";
// The selects begin theirs with a small letter; log filters tell the two apart.
inline constexpr char UNPRINTABLE_SELECT[] = "could not print the formatted pv input\n";

struct script_query : query_scope {
  char name[TARN_NAME_SIZE] = "";
};

// Prints the query in slot into query_buf. False, logged, if nothing is printed.
bool print_query(sip_msg *msg, const char *slot, const query_words &words, str *text);

// Parses the text, which finds the table. False, logged, and with nothing owned if it isn't a
// query.
bool parse_query(const str &text, int32_t op, const query_words &words, script_query *query);

// Prints the table's name in slot into name, of TARN_NAME_SIZE. False, logged, if nothing is
// printed, as for a text that doesn't fit a table's name.
bool print_table_name(sip_msg *msg, const char *slot, std::span<char> name);

// The table of a printed name. Null, logged, if there is none.
tarn_tbl *find_named_table(const char *name);
