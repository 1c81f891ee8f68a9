// Reading with the module's own code.
#include "tools/convert/old_rows.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "ports/port_map.h"
#include "tools/common/file_entry.h"
#include "tools/common/host_services.h"
#include "tools/common/row_text.h"
#include "tools/common/visible_text.h"

old_rows::old_rows(const site &at, tarn_tbl *table, const std::string &path, findings *found)
    : load_watch{on_line, on_row},
      at_(at),
      table_(table),
      path_(path),
      found_(found),
      progress_(path) {}

void old_rows::on_line(load_watch *self, int number, std::string_view text, bool has_end) {
  static_cast<old_rows *>(self)->line(number, text, has_end);
}

void old_rows::on_row(load_watch *self, int number, const query_in &in, const memdb_row *row) {
  static_cast<old_rows *>(self)->row(number, in, row);
}

void old_rows::line(int number, std::string_view text, bool has_end) {
  bytes_ += text.size() + (has_end ? 1 : 0);
  last_line_ = number;
  text_.assign(text.substr(0, text.find('\0')));
  is_pending_ = number > 1 && !text_.empty() && text_.front() != '#';
  const auto at = static_cast<size_t>(number);
  if (!has_end)
    odd_.note({NO_END, 0, severity::warning, false}, at, [] {
      return std::string(
          "the last line has no end: it may have been cut, and is taken as it stands");
    });
  if (number > 1 && !text_.empty() && !is_pending_)
    odd_.note({COMMENT, 0, severity::warning, false}, at,
              [this] { return "is taken for a comment and left out: " + in_quotes(text_); });
}

void old_rows::row(int number, const query_in &in, const memdb_row *row) {
  is_pending_ = false;
  const auto at = static_cast<size_t>(number);
  lines_.push_back(at);
  progress_.step();
  for (uint32_t i = 0; i < table_->tbl->col_cnt; i++) {
    if (strlen(in.flds[i]) < table_->tbl->cols[i].size) continue;
    odd_.note({CUT, i, severity::warning, true}, at, [&] {
      return in_quotes(in.flds[i]) + " is longer than its column " +
             in_quotes(column_name(table_, i)) + " and is read as " +
             in_quotes(memdb_get_field(table_->tbl, row, i));
    });
  }
}

bool old_rows::is_file() {
  struct stat status;
  const file_entry entry = look_at(path_);
  if (entry.kind != entry_kind::regular) {
    found_->error(path_, 0,
                  entry.kind == entry_kind::missing ? "is a link that leads nowhere"
                                                    : std::string("is ") + kind_name(entry.kind));
    return false;
  }
  if (stat(path_.c_str(), &status) == 0) size_ = static_cast<size_t>(status.st_size);
  return true;
}

bool old_rows::read() {
  if (!is_file()) return false;
  enter(at_);
  clear_port_maps();
  empty_table(table_);
  take_messages();
  errno = 0;
  const table_file_state state = read_table_file(table_, path_.c_str(), this);
  const int error = errno;
  const std::vector<std::string> messages = take_messages();
  progress_.end();
  odd_.tell(path_, lines_.size(), found_);
  switch (state) {
    case table_file_state::unopened:
      found_->unreadable(path_, 0, std::string("can't be read: ") + strerror(error));
      return false;
    case table_file_state::refused:
      tell_refusal(table_, path_, last_line_, text_, messages, found_);
      return false;
    case table_file_state::loaded:
      break;
  }
  if (!is_pending_ && bytes_ >= size_) return true;
  found_->unreadable(path_, static_cast<size_t>(last_line_), "can't be read beyond this line");
  return false;
}
