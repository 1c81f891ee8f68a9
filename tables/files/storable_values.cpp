// The rules for a value.
#include "tables/files/storable_values.h"

#include <cstring>

#include "host/log.h"
#include "query/text/field_strings.h"

namespace {

constexpr char LINE_FEED = '\n';

// Length of the column's name, that name, the table.
using refusal_text = message_text<int, const char *, const char *>;

constexpr refusal_text LINE_END{
    "A value for column '%.*s' of table '%s' has a line end, which its file can't carry\n"};
constexpr refusal_text BAR{
    "A value for column '%.*s' of table '%s' has a bar, which its file can't carry\n"};
constexpr refusal_text BACKSLASH{
    "A value for column '%.*s' of table '%s' has a backslash, which its file can't carry\n"};
constexpr refusal_text STAR{
    "A value for column '%.*s' of table '%s' is a star, which its file can't carry\n"};
constexpr refusal_text COMMENT{
    "A value for column '%.*s' of table '%s' begins with #, as comments do in its file\n"};
constexpr refusal_text TOO_LONG{
    "A value for column '%.*s' of table '%s' is longer than the column\n"};

// Null if there is none.
const refusal_text *refusal_of(const memdb_tbl *tbl, uint32_t col, const char *value) {
  static constexpr char MARKS[] = {FIELD_SEPARATOR, FIELD_ESCAPE, LINE_FEED, '\0'};
  const char mark = value[strcspn(value, MARKS)];
  if (mark == FIELD_SEPARATOR) return &BAR;
  if (mark == FIELD_ESCAPE) return &BACKSLASH;
  if (mark == LINE_FEED) return &LINE_END;
  if (strcmp(value, WILDCARD) == 0) return &STAR;
  if (col == 0 && *value == '#') return &COMMENT;
  // What is cut may be another row's, and the rest may be a lone star.
  return strlen(value) >= tbl->cols[col].size ? &TOO_LONG : nullptr;
}

}  // namespace

bool are_storable(const tarn_tbl *table, const char *const *values, uint32_t first) {
  for (uint32_t i = first; i < table->tbl->col_cnt; i++) {
    const refusal_text *const refusal =
        values[i] != nullptr ? refusal_of(table->tbl, i, values[i]) : nullptr;
    if (refusal == nullptr) continue;
    const std::string_view name = column_name(table, i);
    LM_TEXT(L_ERR, *refusal, static_cast<int>(name.size()), name.data(), table->table_name);
    return false;
  }
  return true;
}
