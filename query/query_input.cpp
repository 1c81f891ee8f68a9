// The query parser.
#include "query/query_input.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "host/log.h"
#include "query/text/field_strings.h"

namespace {

// All up to the first comma, a backslash being nothing special here.
std::string_view plain_table_name(const str &query) {
  const std::string_view text(query.s, strnlen(query.s, static_cast<size_t>(query.len)));
  return text.substr(0, text.find(PART_SEPARATOR));
}

// Of an insert, every column has a value and at least one isn't empty.
bool is_insertable(const query_in &in, const char *rest) {
  uint32_t empty = 0;
  const uint32_t columns = in.table->tbl->col_cnt;
  for (uint32_t i = 0; i < columns; i++) {
    if (in.flds[i] == nullptr) {
      LM_ERR("Wildcard are not allowed in INSERT operation\n");
      return false;
    }
    if (*in.flds[i] == '\0') empty++;
  }
  if (empty == columns) {
    LM_ERR("Empty fields are not allowed in INSERT operation\n");
    return false;
  }
  if (rest != nullptr) {
    LM_ERR("Wrong input format for INSERT\n");
    return false;
  }
  return true;
}

// The limit that the query asks for, or the table's where it asks for none that can be read. False
// for a number that isn't above 0.
bool read_max_res(const str &query, char *cursor, const tarn_tbl &table, int32_t *max_res) {
  *max_res = table.max_rows;
  if (cursor == nullptr) return true;
  str text;
  tarn_memdb_get_next_field(query, PART_SEPARATOR, &cursor, &text);
  int32_t number;
  if (text.len == 0 || !str_to_sint(&text, &number)) return true;
  if (number <= 0) {
    LM_ERR("Invalid value for maximum result count\n");
    return false;
  }
  *max_res = number;
  return true;
}

}  // namespace

tarn_tbl *find_query_table(const str &query, std::string_view name, char **list) {
  *list = query.s;
  str part;
  tarn_memdb_get_next_field(query, PART_SEPARATOR, list, &part);
  if (*list == nullptr) {
    LM_ERR("Field list is missing\n");
    return nullptr;
  }
  tarn_tbl *const table = get_tarn_tbl_by_name(name);
  if (table == nullptr) LM_ERR("Table not found\n");
  return table;
}

bool tarn_memdb_parse_input(const str &query, int32_t op, query_in *in, table_name_text &tbl_name) {
  std::string_view name = plain_table_name(query);
  if (name.empty())
    name = tbl_name;
  else
    tbl_name[name.copy(tbl_name, TARN_NAME_SIZE - 1)] = '\0';

  char *list;
  in->table = find_query_table(query, name, &list);
  return in->table != nullptr && parse_field_list(query, list, op, in);
}

bool parse_field_list(const str &query, char *cursor, int32_t op, query_in *in) {
  str list;
  tarn_memdb_get_next_field(query, op == OP_INSERT ? NO_SEPARATOR : PART_SEPARATOR, &cursor, &list);
  in->flds = tarn_memdb_create_fields(list, &in->table->tbl->col_cnt);
  if (in->flds == nullptr) {
    LM_ERR("Wrong number of fields in field list: %s | %s\n", query.s, printable(cursor));
    return false;
  }
  if ((op == OP_INSERT && !is_insertable(*in, cursor)) ||
      !read_max_res(query, cursor, *in->table, &in->max_res)) {
    tarn_memdb_destroy_fields(in->flds);
    in->flds = nullptr;
    return false;
  }
  return true;
}

void query_in_reset(query_in *in) {
  tarn_memdb_destroy_fields(in->flds);
  *in = {};
}
