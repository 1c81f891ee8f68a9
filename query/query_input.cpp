// The query parser.
#include "query/query_input.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "host/log.h"
#include "query/text/field_strings.h"
#include "query/text/query_marks.h"

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

tarn_tbl *find_table(std::string_view name) {
  tarn_tbl *const table = get_tarn_tbl_by_name(name);
  if (table == nullptr) LM_ERR("Table not found\n");
  return table;
}

// A query cut at its commas.
struct cut_query {
  std::string_view name;
  str list;
  char *rest;                       // behind the comma that ends the list, or null
  std::span<const uint32_t> marks;  // in the list
};

// False for a query without a list, and where its marks don't tell.
bool cut_at_marks(const str &query, int32_t op, const query_marks &marks, cut_query *cut) {
  if (!marks.tell()) return false;
  const auto next_comma = [&query, places = marks.places()](size_t from) {
    while (from < places.size() && query.s[places[from]] != PART_SEPARATOR) from++;
    return from;
  };
  const std::span<const uint32_t> places = marks.places();
  const size_t name_end = next_comma(0);
  if (name_end == places.size() || places[name_end] == 0) return false;
  cut->name = {query.s, places[name_end]};
  const size_t list_end = op == OP_INSERT ? places.size() : next_comma(name_end + 1);
  const uint32_t start = places[name_end] + 1;
  const bool has_rest = list_end < places.size();
  const uint32_t end = has_rest ? places[list_end] : static_cast<uint32_t>(query.len);
  cut->list = {query.s + start, static_cast<int>(end - start)};
  cut->rest = has_rest ? query.s + end + 1 : nullptr;
  cut->marks = places.subspan(name_end + 1, list_end - name_end - 1);
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
  return find_table(name);
}

bool tarn_memdb_parse_input(const str &query, int32_t op, query_in *in, table_name_text &tbl_name) {
  const query_marks marks(text_of(query));
  cut_query cut;
  const bool is_cut = cut_at_marks(query, op, marks, &cut);
  std::string_view name = is_cut ? cut.name : plain_table_name(query);
  if (name.empty())
    name = tbl_name;
  else
    tbl_name[name.copy(tbl_name, TARN_NAME_SIZE - 1)] = '\0';

  if (is_cut) {
    in->table = find_table(name);
    if (in->table == nullptr) return false;
    in->flds = tarn_memdb_create_fields(
        cut.list, cut.marks, static_cast<uint32_t>(cut.list.s - query.s), &in->table->tbl->col_cnt);
  } else {
    in->table = find_query_table(query, name, &cut.rest);
    if (in->table == nullptr) return false;
    tarn_memdb_get_next_field(query, op == OP_INSERT ? NO_SEPARATOR : PART_SEPARATOR, &cut.rest,
                              &cut.list);
    in->flds = tarn_memdb_create_fields(cut.list, &in->table->tbl->col_cnt);
  }
  if (in->flds == nullptr) {
    LM_ERR("Wrong number of fields in field list: %s | %s\n", query.s, printable(cut.rest));
    return false;
  }
  if ((op == OP_INSERT && !is_insertable(*in, cut.rest)) ||
      !read_max_res(query, cut.rest, *in->table, &in->max_res)) {
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
