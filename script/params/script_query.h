// The steps by which every script function gets from its parameters to a table.
#pragma once

#include "query/query_input.h"
#include "script/params/read_param.h"
#include "tables/tarn_tbl.h"

// Results that a routing script sees; any other positive value reports something.
inline constexpr int SCRIPT_OK = 1;
inline constexpr int SCRIPT_FAILED = -1;
inline constexpr int SCRIPT_NO_ROW = -2;

// What a function says about its query; the text that was printed goes into the last two.
struct query_texts {
  message_text<> unprintable;
  message_text<const char *> printed;
  message_text<const char *> unparsed;
};

inline constexpr message_text<> UNPRINTABLE{"Could not print the formatted pv input\n"};
// The selects begin theirs with a small letter; log filters tell the two apart.
inline constexpr message_text<> UNPRINTABLE_SELECT{"could not print the formatted pv input\n"};
inline constexpr message_text<> BAD_PARAMETERS{"Bad parameters\n"};
inline constexpr message_text<const char *> PRINTED_SELECT{"Select: %s\n"};
inline constexpr message_text<const char *> UNPARSED_INSERT{
    "Could not parse query (%s) for insert\n"};

struct script_query : query_scope {
  table_name_text name = "";
};

// Prints the query in slot into query_buf. False, logged, if nothing is printed.
bool print_query(sip_msg *msg, const char *slot, const query_texts &texts, str *text);

// Parses the text, which finds the table. False, logged, and with nothing owned if it isn't a
// query.
bool parse_query(const str &text, int32_t op, const message_text<const char *> &unparsed,
                 script_query *query);

// Prints the table's name in slot. False, logged, if nothing is printed, as for a text that doesn't
// fit a table's name.
bool print_table_name(sip_msg *msg, const char *slot, table_name_text &name);

// The table of a printed name. Null, logged, if there is none.
tarn_tbl *find_named_table(const char *name);
