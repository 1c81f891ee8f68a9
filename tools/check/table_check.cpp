// The walk through table files.
#include "tools/check/table_check.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <set>

#include "host/log.h"
#include "query/query_input.h"
#include "tables/port_claim.h"
#include "tables/row_image.h"
#include "tables/table_paths.h"
#include "tools/check/host_services.h"
#include "tools/check/whole_file.h"

namespace {

enum class file_state { absent, unreadable, good, bad };

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

void empty_table(tarn_tbl *table) {
  memdb_delete_all(table->tbl);
  table->row_count = 0;
  table->next_index = 1;
}

class file_walk {
 public:
  // With no findings to write to, the walk only finds out whether the file is good.
  file_walk(tarn_tbl *table, std::string path, port_claims *claims, findings *out)
      : table_(table), path_(std::move(path)), claims_(claims), out_(out) {}

  file_state run() {
    empty_table(table_);
    if (access(path_.c_str(), F_OK) != 0) return file_state::absent;
    const std::optional<std::string> text = whole_file(path_);
    if (!text) {
      if (out_ != nullptr) out_->unreadable(path_);
      return file_state::unreadable;
    }
    return lines(*text) ? file_state::good : file_state::bad;
  }

 private:
  void warn(size_t line, const std::string &text) {
    if (out_ != nullptr) out_->warn(path_, line, text);
  }
  void error(size_t line, const std::string &text) {
    if (out_ != nullptr) out_->error(path_, line, text);
  }

  bool lines(std::string_view text) {
    if (text.empty()) {
      error(0, "is empty: a good file has at least the line " + quoted(TABLE_FILE_VERSION));
      return false;
    }
    for (size_t number = 1; !text.empty(); number++) {
      const size_t end = text.find('\n');
      const std::string_view line = text.substr(0, end);
      if (end == text.npos)
        warn(number, "the last line has no end: it may have been cut, and loads as it stands");
      text.remove_prefix(end == text.npos ? text.size() : end + 1);
      if (number == 1 ? !version(line) : !row(number, line)) return false;
    }
    return true;
  }

  bool version(std::string_view line) {
    line = line.substr(0, line.find('\0'));
    if (line == TABLE_FILE_VERSION) return true;
    error(1, "is " + quoted(line) + " and not " + quoted(TABLE_FILE_VERSION) +
                 (line.ends_with('\r') ? ": lines end in a carriage return" : ""));
    return false;
  }

  // False for a row that the module refuses, and with it the file.
  bool row(size_t number, std::string_view line) {
    if (line.find('\0') != line.npos)
      warn(number, "holds a zero byte: what stands behind it is lost");
    std::string text(line.data(), strnlen(line.data(), line.size()));
    if (text.empty()) return true;
    if (text.front() == '#') {
      warn(number, "is taken for a comment and gone after the next store: " + quoted(text));
      return true;
    }
    return load(number, text);
  }

  bool load(size_t number, const std::string &text) {
    std::string composed = std::string(table_->table_name) + "," + text;
    const str query{composed.data(), static_cast<int>(composed.size())};
    query_scope in;
    char name[TARN_NAME_SIZE] = "";
    if (tarn_memdb_parse_input(query, OP_INSERT, &in, name) == nullptr) {
      error(number, "the row is refused (" + take_reason() + "): " + quoted(text));
      return false;
    }
    index(number, in);
    const memdb_row *const loaded = memdb_insert(table_->tbl, in.flds);
    if (loaded == nullptr) {
      error(number, "the row can't be loaded (" + take_reason() + "): " + quoted(text));
      return false;
    }
    changes(number, text, loaded);
    limit(number);
    port(number, loaded);
    return true;
  }

  void index(size_t number, const query_in &in) {
    if (table_->use_index == 0) return;
    const char *const text = in.flds[0];
    const auto taken = static_cast<uint32_t>(atoi(text));
    if (std::to_string(taken) != text)
      warn(number, "the index " + quoted(text) + " is no number as the module writes it and is " +
                       "taken for " + std::to_string(taken));
    if (taken == std::numeric_limits<uint32_t>::max())
      warn(number, "the index " + quoted(text) + " is the last: the next insert draws none");
    if (!indexes_.insert(text).second)
      warn(number, "the index " + quoted(text) + " stands in an earlier row as well");
  }

  void changes(size_t number, const std::string &text, const memdb_row *loaded) {
    std::string image(text.size() + table_->tbl->row_len + 1, '\0');
    row_image(table_->tbl, loaded, image);
    const std::string reason = take_reason();
    if (image.c_str() != text)
      warn(number, "the row loads changed, as " + quoted(image.c_str()) +
                       (reason.empty() ? "" : " (" + reason + ")") + ": " + quoted(text));
    else if (text.ends_with('\r'))
      warn(number, "a carriage return at the end is part of the last field");
  }

  void limit(size_t number) {
    if (++table_->row_count == table_->max_rows + 1)
      warn(number, "from here on there are more rows than MAX_ROWS, " +
                       std::to_string(table_->max_rows) +
                       ": all are loaded, and the limit no longer holds");
  }

  void port(size_t number, const memdb_row *loaded) {
    if (out_ == nullptr || !holds_ports(*table_)) return;
    port_claim claim;
    if (!find_port_claim(table_, nullptr, loaded, &claim)) return;
    const int port = atoi(claim.text);
    if (std::to_string(port) != claim.text)
      warn(number, "the port " + quoted(claim.text) + " is no number as ports are written and is " +
                       "taken for " + std::to_string(port));
    if (!is_port_in_range(claim.map, port)) {
      warn(number, "the row's port " + quoted(claim.text) + " lies outside its map, " +
                       std::to_string(claim.map->min_port) + " to " +
                       std::to_string(claim.map->max_port) + ": it isn't counted");
      return;
    }
    const auto [first, is_new] =
        claims_->emplace(std::pair<const void *, int>(claim.map, port), std::pair(path_, number));
    if (!is_new)
      warn(number, "the port " + std::to_string(port) + " is held by " + first->second.first + ":" +
                       std::to_string(first->second.second) +
                       " as well: it is free only when all "
                       "such rows are gone");
  }

  tarn_tbl *table_;
  std::string path_;
  port_claims *claims_;
  findings *out_;
  std::set<std::string> indexes_;
};

}  // namespace

void check_table(tarn_tbl *table, port_claims *claims, findings *out) {
  if (!names_file(main_path(table).text)) return;
  const main_path path(table);
  const backup_path backup(table);
  const file_state main_state = file_walk(table, path.text, claims, out).run();
  if (main_state == file_state::good) {
    const file_state behind = file_walk(table, backup.text, claims, nullptr).run();
    take_messages();
    if (behind == file_state::bad || behind == file_state::unreadable)
      out->warn(backup.text, 0, "is bad and couldn't stand in for the main file");
    return;
  }
  const file_state behind = file_walk(table, backup.text, claims, out).run();
  const std::string rows = "table " + quoted(table->table_name);
  if (main_state == file_state::absent) {
    if (behind == file_state::good)
      out->warn(path.text, 0, "is missing: " + rows + " is loaded from " + backup.text);
    else if (behind != file_state::absent)
      out->error(backup.text, 0,
                 "is removed, and there is no main file: " + rows + " starts empty");
    return;
  }
  if (behind == file_state::good)
    out->error(path.text, 0, "is removed, and " + rows + " is loaded from " + backup.text);
  else
    out->error(path.text, 0,
               "is removed" +
                   (behind == file_state::absent ? ", and there is no backup"
                                                 : ", and so is " + std::string(backup.text)) +
                   ": " + rows + " starts empty, with no data left on disk");
}
