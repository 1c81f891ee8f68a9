// Row by row.
#include "tools/check/row_watch.h"

#include <cstring>
#include <limits>

#include "query/text/field_strings.h"
#include "tables/rows/port_claim.h"
#include "tools/common/host_services.h"
#include "tools/common/row_text.h"
#include "tools/common/visible_text.h"

namespace {

// What a load makes of a row that is stored as it is.
enum next_fate : uint32_t { KEPT, PASSED_OVER, COMMENT_TAKEN, FILE_REFUSED, MISREAD };
constexpr const char *FATES[] = {"keeps", "passes over", "takes for a comment",
                                 "refuses, and the whole file with it", "reads as something else"};

next_fate fate_of(const tarn_tbl *table, const memdb_row *row, const std::string &line) {
  if (line.empty()) return PASSED_OVER;
  if (line.front() == '#') return COMMENT_TAKEN;
  std::string query = std::string(table->table_name) + "," + line;
  query_scope in;
  const bool is_read = parse_table_row(table, {query.data(), static_cast<int>(query.size())}, &in);
  take_messages();
  if (!is_read) return FILE_REFUSED;
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++)
    if (strcmp(in.flds[i], memdb_get_field(table->tbl, row, i)) != 0) return MISREAD;
  return KEPT;
}

}  // namespace

row_watch::row_watch(tarn_tbl *table, const std::string &path, const port_holders &held,
                     size_t size, findings *out)
    : load_watch{on_line, on_row},
      table_(table),
      path_(path),
      size_(size),
      held_(held),
      out_(out),
      equal_(table) {}

void row_watch::on_line(load_watch *self, int number, std::string_view text, bool has_end) {
  auto *const watch = static_cast<row_watch *>(self);
  watch->line_ = number;
  watch->line(text, has_end);
}

void row_watch::on_row(load_watch *self, int, const query_in &in, const memdb_row *row) {
  static_cast<row_watch *>(self)->row(in, row);
}

void row_watch::line(std::string_view text, bool has_end) {
  bytes_ += text.size() + (has_end ? 1 : 0);
  text_.assign(text.substr(0, text.find('\0')));
  is_row_ = false;
  if (!has_end)
    warn(NO_END,
         [] { return "the last line has no end: it may have been cut, and loads as it stands"; });
  if (line_ == 1) return;
  if (text_.size() != text.size())
    warn(ZERO_BYTE, [] { return "holds a zero byte: what stands behind it is lost"; });
  is_row_ = !text_.empty() && text_.front() != '#';
  if (!text_.empty() && !is_row_)
    warn(COMMENT, [this] {
      return "is taken for a comment and gone after the next store: " + in_quotes(text_);
    });
}

void row_watch::row(const query_in &in, const memdb_row *row) {
  is_row_ = false;
  const bool is_changed = !is_stored_line(table_->tbl, row, text_);
  const bool is_cut = is_changed && changes(in, row);
  if (!is_changed && text_.ends_with('\r'))
    warn(CARRIAGE_RETURN, [] { return "a carriage return at the end is part of the last field"; });
  if (table_->use_index != 0) index(in.flds[0]);
  if (table_->duplicated_data_check != 0)
    equal_.add(row, is_changed ? std::string_view(stored_line(table_->tbl, row)) : text_, line_,
               is_cut);
  limit();
  if (holds_ports(*table_)) port(row);
}

// True if a value was cut.
bool row_watch::changes(const query_in &in, const memdb_row *row) {
  take_messages();
  bool is_cut = false;
  for (uint32_t i = 0; i < table_->tbl->col_cnt; i++) {
    const char *const field = memdb_get_field(table_->tbl, row, i);
    const char *const value = in.flds[i];
    if (strlen(value) < table_->tbl->cols[i].size) continue;
    is_cut = true;
    note(severity::warning, CUT, i, line_, [&] {
      return "the row loads changed: " + in_quotes(value) + " is cut to " + in_quotes(field) +
             ", the room of column " + in_quotes(column_name(table_, i));
    });
  }
  const bool has_escape = text_.find(FIELD_ESCAPE) != text_.npos;
  if (has_escape)
    warn(UNESCAPED, [&] {
      return "the row loads changed, without its backslashes, as " +
             in_quotes(stored_line(table_->tbl, row)) + ": " + in_quotes(text_);
    });
  if (!is_cut && !has_escape)
    warn(CHANGED, [&] {
      return "the row loads changed, as " + in_quotes(stored_line(table_->tbl, row)) + ": " +
             in_quotes(text_);
    });
  next_load(row);
  return is_cut;
}

// A row that was changed is stored as it is now, and that may be what no load takes.
void row_watch::next_load(const memdb_row *row) {
  const next_fate fate = fate_of(table_, row, stored_line(table_->tbl, row));
  if (fate == KEPT) return;
  note(severity::error, LOADS_ONCE, fate, line_, [&] {
    return "the row can't be kept: the next store writes " +
           in_quotes(stored_line(table_->tbl, row)) + ", which the start after it " + FATES[fate];
  });
}

void row_watch::index(const char *text) {
  const uint32_t taken = stored_index(text);
  if (std::to_string(taken) != text)
    warn(INDEX_TEXT, [&] {
      return "the index " + in_quotes(text) +
             " is no number as the module writes it and is taken for " + std::to_string(taken);
    });
  if (taken == std::numeric_limits<uint32_t>::max())
    warn(INDEX_LAST, [&] {
      return "the index " + in_quotes(text) + " is the last: the next insert draws none";
    });
  if (!is_index_new(taken))
    warn(INDEX_TWICE,
         [&] { return "the index " + in_quotes(text) + " stands in an earlier row as well"; });
}

// Rows as a rule come in the order of their indexes, and then the highest is all to remember.
bool row_watch::is_index_new(uint32_t taken) {
  const bool is_first = table_->row_count == 1;
  if (indexes_.empty() && (is_first || taken > highest_)) {
    highest_ = taken;
    return true;
  }
  if (indexes_.empty())
    for (const memdb_row *row = table_->tbl->first->next; row != nullptr; row = row->next)
      indexes_.insert(stored_index(memdb_get_field(table_->tbl, row, 0)));
  return indexes_.insert(taken).second;
}

void row_watch::equal_rows_found() {
  for (const auto &[line, earlier] : equal_.find())
    note(severity::warning, EQUAL_ROW, 0, line, [first = earlier] {
      return "counts as equal to the row of line " + std::to_string(first) +
             ": it is loaded, while an insert of it would be refused";
    });
}

void row_watch::limit() {
  if (table_->row_count != int64_t{table_->max_rows} + 1) return;
  warn(TOO_MANY, [this] {
    return "from here on there are more rows than MAX_ROWS, " + std::to_string(table_->max_rows) +
           ": all are loaded, and the limit no longer holds";
  });
}

void row_watch::port(const memdb_row *row) {
  port_claim claim;
  if (!find_port_claim(table_, nullptr, row, &claim)) return;
  const int32_t port = claimed_port(claim);
  const std::string number = std::to_string(port);
  if (number != claim.text)
    warn(PORT_TEXT, [&] {
      return "the port " + in_quotes(claim.text) +
             " is no number as ports are written and is taken for " + number;
    });
  if (!is_port_in_range(claim.map, port)) {
    warn(PORT_OUTSIDE, [&] {
      return "the row's port " + in_quotes(claim.text) + " lies outside its map, " +
             std::to_string(claim.map->min_port) + " to " + std::to_string(claim.map->max_port) +
             ": it isn't counted";
    });
    return;
  }
  const port_holder *first = held_.find(claim.map, port);
  if (first == nullptr) first = own_ports_.find(claim.map, port);
  if (first != nullptr)
    warn(PORT_TWICE, [&] {
      return "the port " + number + " is held by " + *first->path + ":" +
             std::to_string(first->line) + " as well: it is free only when all such rows are gone";
    });
  own_ports_.add(claim.map, port, path_, line_);
}

void row_watch::finish(table_file_state state, const std::vector<std::string> &messages) {
  equal_rows_found();
  odd_.tell(path_, static_cast<size_t>(table_->row_count), out_);
  if (state == table_file_state::refused) {
    tell_refusal(table_, path_, line_, text_, messages, out_);
    return;
  }
  if (is_row_ || bytes_ < size_)
    out_->unreadable(path_, static_cast<size_t>(line_),
                     "can't be read to its end: the rows behind this line are lost at a start "
                     "that fares no better");
  if (table_->use_index != 0 && table_->next_index > std::numeric_limits<int32_t>::max())
    out_->warn(path_, 0,
               "the next index, " + std::to_string(table_->next_index) +
                   ", is beyond 31 bits: scripts get a negative number for the row");
}
