// Loading with the module's own code.
#include "tools/convert/proof.h"

#include "ports/port_map.h"
#include "tables/rows/port_claim.h"
#include "tools/common/host_services.h"
#include "tools/common/row_text.h"
#include "tools/common/visible_text.h"

proof::proof(const site &at, tarn_tbl *table, const std::vector<size_t> &lines, severity odd_number)
    : load_watch{on_line, on_row},
      at_(at),
      table_(table),
      lines_(lines),
      odd_number_(odd_number),
      equal_(table),
      progress_("reading back table " + std::string(table->table_name)) {}

void proof::on_line(load_watch *self, int, std::string_view text, bool) {
  static_cast<proof *>(self)->text_.assign(text);
}

void proof::on_row(load_watch *self, int, const query_in &, const memdb_row *row) {
  static_cast<proof *>(self)->row(row);
}

void proof::row(const memdb_row *row) {
  progress_.step();
  if (rows_ == lines_.size() || !is_stored_line(table_->tbl, row, text_)) {
    is_as_written_ = false;
    return;
  }
  const size_t origin = lines_[rows_++];
  if (table_->use_index != 0) index(row, origin);
  if (holds_ports(*table_)) port(row, origin);
  if (table_->duplicated_data_check != 0) equal_.add(row, text_, static_cast<int>(origin), false);
}

void proof::index(const memdb_row *row, size_t origin) {
  const char *const text = memdb_get_field(table_->tbl, row, 0);
  const uint32_t number = stored_index(text);
  if (std::to_string(number) == text) return;
  odd_.note({INDEX, 0, odd_number_, false}, origin, [&] {
    return "the index " + in_quotes(text) +
           " is no number as the module writes it, and is taken for " + std::to_string(number);
  });
}

void proof::port(const memdb_row *row, size_t origin) {
  port_claim claim;
  if (!find_port_claim(table_, nullptr, row, &claim) || *claim.text == '\0') return;
  const int32_t number = claimed_port(claim);
  if (std::to_string(number) == claim.text) return;
  odd_.note({PORT, 0, odd_number_, false}, origin, [&] {
    return "the port " + in_quotes(claim.text) +
           " is no number as ports are written, and is taken for " + std::to_string(number);
  });
}

bool proof::load(const std::string &path) {
  enter(at_);
  clear_port_maps();
  empty_table(table_);
  take_messages();
  const table_file_state state = read_table_file(table_, path.c_str(), this);
  messages_ = take_messages();
  return state == table_file_state::loaded && is_as_written_ && rows_ == lines_.size();
}

void proof::tell(const std::string &source, findings *found) {
  for (const auto &[origin, earlier] : equal_.find())
    odd_.note({EQUAL, 0, severity::warning, false}, static_cast<size_t>(origin), [first = earlier] {
      return "counts as equal to the row of line " + std::to_string(first) +
             ": an insert of it would be refused";
    });
  odd_.tell(source, rows_, found);
}
