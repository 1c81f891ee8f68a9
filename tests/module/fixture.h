// What every test of the built module shares: a schema, a directory of its own, the module opened
// afresh, and looks from outside at what it did.
//
// A test describes its tables, calls start, and then runs script functions and RPC commands. At
// its end the module is stopped and unloaded, and every block, stream and misuse that is left over
// fails the test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/standin/file_faults.h"
#include "tests/standin/standin.h"
#include "tests/support/schema_text.h"

namespace module_test {

using standin::pool;
using standin::value;

using schema_text::column;
using schema_text::table;

// The table with these settings changed.
table with(table changed, int max_rows, const std::string &log_tag = {}, bool use_index = false,
           bool check_duplicates = false);

// A table of eleven columns, so that every column that the port rules read is there: location 5,
// type 7 or 8, internal port 9, external port 10, key columns 1 to 3.
table port_table(const std::string &name, const std::string &range);

using row = std::vector<std::string>;
using row_list = std::vector<row>;
using texts = std::vector<std::string>;

// Rows per table in the order of their insertion, each as a line with its bars.
using contents = std::map<std::string, texts>;

std::string joined(const texts &parts, const std::string &between);

// The same text n times.
std::string repeated(const std::string &text, size_t n);

// The values of an AVP in the order in which a script reads them, the one added last first.
texts avp_texts(const std::string &name);

// A message of the module with its level.
struct message {
  int level;
  std::string text;
  bool operator==(const message &other) const = default;
};
std::ostream &operator<<(std::ostream &out, const message &shown);
const char *level_name(int level);

inline message crit(std::string text) { return {-3, std::move(text)}; }
inline message err(std::string text) { return {-1, std::move(text)}; }
inline message warn(std::string text) { return {0, std::move(text)}; }
inline message notice(std::string text) { return {1, std::move(text)}; }
inline message info(std::string text) { return {2, std::move(text)}; }
inline message dbg(std::string text) { return {3, std::move(text)}; }

inline constexpr int ALERT_LEVEL = -5;
inline constexpr int ERR_LEVEL = -1;
inline constexpr int WARN_LEVEL = 0;
inline constexpr int NOTICE_LEVEL = 1;
inline constexpr int INFO_LEVEL = 2;
inline constexpr int DBG_LEVEL = 3;

// The caught messages of that level and graver ones, in order.
std::vector<message> messages(int least_grave = DBG_LEVEL);

// What is said when a format can't be printed; selects have a line of their own.
inline constexpr char UNPRINTABLE[] = "Could not print the formatted pv input\n";
inline constexpr char UNPRINTABLE_SELECT[] = "could not print the formatted pv input\n";

// Number of the module's own blocks that are live, for a comparison before and after.
size_t module_blocks(pool which);

std::string read_file(const std::string &path);
bool file_exists(const std::string &path);
void write_file(const std::string &path, const std::string &text);

// A directory that is removed with all that is in it.
class temporary_directory {
 public:
  temporary_directory();
  ~temporary_directory();
  temporary_directory(const temporary_directory &) = delete;
  temporary_directory &operator=(const temporary_directory &) = delete;

  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class ModuleTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Opening. load is done at the test's beginning; after unload the module can be loaded again and
  // starts from nothing but its files.
  void load();
  void unload();

  // Writes the schema and sets the parameters that name files. Other parameters may be set before
  // or after, with module().set_param.
  void configure(const std::vector<table> &tables);
  // configure and mod_init, which has to succeed; then all messages and counts are forgotten.
  void start(const std::vector<table> &tables);
  void start_configured();
  // start with these rows in the tables' files, so that nothing has changed yet.
  void start_with(const std::vector<table> &tables, const contents &rows);
  void start_filled(const table &one, const texts &rows);
  // start with four port maps of ten ports each that have none in common: dynamic internal from
  // 100, dynamic external from 200, static internal from 300, static external from 400.
  void start_with_small_maps(const std::vector<table> &tables);
  // Runs mod_destroy, and again configure and mod_init in a fresh image on the same kind of host.
  void restart();
  int init();
  void destroy();
  standin::loaded_module &module() { return *module_; }

  // Fix-ups, and calls of script functions. A call has to leave no block of private memory and no
  // open stream behind.
  standin::command fixup(const std::string &function, const texts &parameters);
  int call(const standin::command &prepared);
  int run(const std::string &function, const texts &parameters);

  // An RPC command, with the same checks.
  standin::rpc_reply rpc(const std::string &name, const std::vector<value> &arguments = {});

  // Runs one fix-up on a slot that holds no text.
  int fixup_null(const std::string &function, int parameters, int number);

  // The table's rows, oldest first, read without a trace in log or AVPs. Needs start.
  row_list rows(const std::string &table_name);
  // The number of rows that the module counts.
  int row_count(const std::string &table_name);
  // The rows are what is expected, as many as the module counts, and each is found by the value of
  // each column.
  void expect_rows(const std::string &table_name, const row_list &expected);

  // Files. The paths are those of the table's main and backup file.
  std::string main_file(const std::string &table_name) const;
  std::string backup_file(const std::string &table_name) const;
  // Where a file goes that a load refuses, and what is said of it then.
  static std::string refused(const std::string &path) { return path + ".refused"; }
  static std::string set_aside(const std::string &path) {
    return "File '" + path + "' can't be loaded and was renamed to '" + refused(path) + "'\n";
  }
  std::string schema_file() const { return directory_ / "schema.cfg"; }
  std::string ranges_file() const { return directory_ / "ranges.txt"; }
  std::string base_directory() const { return directory_ / "main/"; }
  std::string backup_directory() const { return directory_ / "backup/"; }
  // The text of a table's file with these rows, each with its bars.
  static std::string table_text(const texts &rows);
  // Runs the store timer and reads the rows of the main file; no rows without such a file.
  texts stored(const std::string &table_name);
  // True if the store timer finds the table changed, and so writes it.
  bool store_writes(const std::string &table_name);

  // Forgets messages, counts and planned failures.
  static void forget();

  sip_msg msg;
  // Tests of starts that fail say that shared blocks may stay, and look at them themselves.
  bool shared_blocks_may_stay = false;

 private:
  void prepare_looks();

  struct look {
    std::string table_name;
    size_t columns;
    standin::command all;
    standin::command by_list;
    standin::command count;
  };
  const look &look_at(const std::string &table_name) const;

  temporary_directory directory_;
  std::unique_ptr<standin::loaded_module> module_;
  std::vector<table> tables_;
  std::vector<look> looks_;
  bool initialised_ = false;
};

// Silences the module's log during its life.
class quiet {
 public:
  quiet();
  ~quiet();
  quiet(const quiet &) = delete;
  quiet &operator=(const quiet &) = delete;

 private:
  int level_;
};

}  // namespace module_test
