// Rows and the lines of a file that they are.
#include "tools/common/row_text.h"

#include <cstring>

#include "query/text/field_strings.h"
#include "tables/files/table_paths.h"
#include "tables/rows/row_image.h"
#include "tools/common/host_services.h"
#include "tools/common/visible_text.h"

namespace {

// Fields as the query language cuts them.
uint32_t count_fields(std::string *text) {
  const str list{text->data(), static_cast<int>(text->size())};
  uint32_t count = 0;
  str field;
  for (char *cursor = list.s; cursor != nullptr; count++)
    tarn_memdb_get_next_field(list, FIELD_SEPARATOR, &cursor, &field);
  take_messages();
  return count;
}

// The module's reasons, but for its count of fields, which doesn't tell the numbers, and for its
// last line, which only says that the row was refused.
std::string why_refused(const tarn_tbl *table, std::string *text,
                        const std::vector<std::string> &messages) {
  std::vector<std::string> reasons;
  bool is_miscounted = messages.size() == 1;
  for (const std::string &message : messages) {
    if (message.starts_with("Size mismatch") || message.starts_with("Wrong number of fields"))
      is_miscounted = true;
    else if (&message != &messages.back())
      reasons.push_back(message);
  }
  std::string out;
  if (is_miscounted) {
    const uint32_t fields = count_fields(text);
    const uint32_t columns = table->tbl->col_cnt;
    out = fields != columns
              ? ", with " + counted(fields, "field") + " for " + counted(columns, "column")
              : ", since the first table of the name " + in_quotes(table->table_name) +
                    " has another number of columns";
  }
  return reasons.empty() ? out : out + " (" + joined(reasons) + ")";
}

}  // namespace

std::string stored_line(const memdb_tbl *tbl, const memdb_row *row) {
  std::string out(size_t{tbl->row_len} + tbl->col_cnt + 1, '\0');
  row_image(tbl, row, out);
  out.resize(strlen(out.c_str()));
  return out;
}

bool is_stored_line(const memdb_tbl *tbl, const memdb_row *row, std::string_view line) {
  const char *at = line.data();
  const char *const end = at + line.size();
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (i > 0 && (at == end || *at++ != FIELD_SEPARATOR)) return false;
    const std::string_view field = memdb_get_field(tbl, row, i);
    if (!std::string_view(at, end).starts_with(field)) return false;
    at += field.size();
  }
  return at == end;
}

void tell_refusal(const tarn_tbl *table, const std::string &path, int line, std::string text,
                  const std::vector<std::string> &messages, findings *out) {
  const auto at = static_cast<size_t>(line);
  if (line == 0)
    out->error(path, 0,
               "is empty: a good file has at least the line " + in_quotes(TABLE_FILE_VERSION));
  else if (line == 1)
    out->error(path, at,
               "is " + in_quotes(text) + " and not " + in_quotes(TABLE_FILE_VERSION) +
                   (text.ends_with('\r') ? ": lines end in a carriage return" : ""));
  else
    out->error(path, at,
               "the row is refused" + why_refused(table, &text, messages) + ": " + in_quotes(text));
}
