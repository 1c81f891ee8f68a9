// One life of the module on the stand-in host, from its files to its end, for runs in which one
// thing fails: small tables of every kind, port maps of ten ports, and looks at all that they hold.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/module/fixture.h"

namespace faults {

using row_texts = std::vector<std::string>;  // rows as a table file has them, oldest first
using tables_rows = std::map<std::string, row_texts>;

// Notes that something isn't as it has to be, under the name of the present point.
void deviation(const std::string &text);

// Whether the engine takes a few rows for many, so that there are directories and look-ups; see
// early_directories.cc.
enum class row_count { few, many };

class world {
 public:
  // A directory with a schema, private ranges, and a main and an older backup file of each table.
  explicit world(standin::host_kind host, row_count taken_for = row_count::few);
  ~world();
  world(const world &) = delete;
  world &operator=(const world &) = delete;

  // The module's image and parameters; then mod_init.
  void open();
  bool start();
  // mod_destroy; then the image goes, and nothing of it may be left.
  void destroy();
  void close(bool shared_blocks_may_stay = false);

  standin::loaded_module &module() { return *module_; }
  bool started() const { return started_; }

  // A script function with its texts, its fix-ups, and its call.
  void write_call(const std::string &function, const std::vector<std::string> &texts);
  bool run_fixups();
  const standin::command &written_call() const { return prepared_; }
  bool fix(const std::string &function, const std::vector<std::string> &texts);
  int call();

  // Rows as the module shows them, checked against its counts and its indexes.
  tables_rows rows();
  // Everything that can be told from outside, as text. Uses up all ports: to be done last.
  std::string state();

  // Texts by the file's name: "phones", "phones backup", and "phones refused" and "phones backup
  // refused" for what a load put aside.
  std::map<std::string, std::string> files() const;
  // What a start makes of the files.
  tables_rows rows_in_files() const;
  // Files that somebody may read or write who couldn't at the beginning.
  std::vector<std::string> files_open_to_others() const;
  // Makes a table's file one that a load refuses, behind a row that is good.
  void spoil(const std::string &table, bool backup);
  // Puts rows behind those of a table's main file.
  void lengthen(const std::string &table, const row_texts &rows);

  static const std::vector<module_test::table> &tables();
  // Rows of main and backup files at the beginning.
  static const tables_rows &rows_at_first();
  static const tables_rows &rows_before_that();

  sip_msg msg;

 private:
  std::string path(const std::string &table, bool backup) const;
  std::string ports_of(const std::string &map);
  void look_up(const module_test::table &table, const row_texts &rows);
  void look_up_prefixes(const row_texts &gateways);

  module_test::temporary_directory directory_;
  standin::host_kind host_;
  row_count taken_for_;
  mode_t usual_mask_;
  std::unique_ptr<standin::loaded_module> module_;
  standin::command prepared_;
  bool started_ = false;
};

}  // namespace faults
