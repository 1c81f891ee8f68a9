// Check, write, read back.
#include "tools/convert/new_file.h"

#include <unistd.h>

#include <cstring>

#include "query/text/field_strings.h"
#include "tables/files/table_paths.h"
#include "tools/common/host_services.h"
#include "tools/common/visible_text.h"
#include "tools/convert/proof.h"

std::string new_path(const std::string &path) { return path + ".converted"; }

new_file::new_file(const site &at, tarn_tbl *table, const std::string &path,
                   const std::string &source, const new_file_rules &rules, findings *found)
    : at_(at),
      table_(table),
      path_(new_path(path)),
      source_(source),
      rules_(rules),
      found_(found),
      check_(table, rules.may_cut),
      progress_("writing table " + std::string(table->table_name)) {}

bool new_file::unwritable() {
  found_->unreadable(path_, 0, std::string("can't be written: ") + strerror(file_.error()));
  return false;
}

bool new_file::make(const file_access &access) {
  if (!file_.make(path_, access)) return unwritable();
  return (file_.put(TABLE_FILE_VERSION) && file_.put('\n')) || unwritable();
}

bool new_file::add(std::span<std::string_view> values, size_t line) {
  progress_.step();
  lines_.push_back(line);
  check_.pass(values, line);
  for (size_t i = 0; i < values.size(); i++)
    if ((i > 0 && !file_.put(FIELD_SEPARATOR)) || !file_.put(values[i])) return unwritable();
  return file_.put('\n') || unwritable();
}

// A load takes any number of rows, but then nothing holds the limit any more.
bool new_file::is_within_limit() {
  const int32_t most = table_->max_rows;
  if (most < 0 || rows() <= static_cast<size_t>(most)) return true;
  found_->error(source_, lines_[static_cast<size_t>(most)],
                "from here on there are more rows than table " + in_quotes(table_->table_name) +
                    " may have: " + std::to_string(rows()) + ", and MAX_ROWS is " +
                    std::to_string(most));
  return false;
}

bool new_file::reads_back() {
  proof load(at_, table_, lines_, rules_.odd_number);
  if (!load.load(path_)) {
    found_->unreadable(path_, 0, "isn't read back as it was written: " + joined(load.messages()));
    return false;
  }
  const size_t errors = found_->errors();
  load.tell(source_, found_);
  return found_->errors() == errors;
}

bool new_file::finish() {
  progress_.end();
  const size_t errors = found_->errors();
  check_.tell(source_, rows(), found_);
  if (is_within_limit() && found_->errors() == errors) {
    if (!file_.finish()) return unwritable();
    if (reads_back()) return true;
  }
  remove();
  return false;
}

void new_file::remove() { unlink(path_.c_str()); }
