// Ground for the tests of tables, files and admission: a directory of its own per test, a registry
// made from a schema text, port maps on request, and a check at the end that nothing leaked, that
// no lock stayed held and that no file stayed open.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "host/imports.h"
#include "memdb/index/index.h"
#include "memdb/memdb.h"
#include "ports/port_allocation.h"
#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "query/query_input.h"
#include "tables/files/table_files.h"
#include "tables/rows/flag_treatment.h"
#include "tables/rows/row_admission.h"
#include "tables/schema.h"
#include "tables/shared/lock.h"
#include "tables/shared/shared_memory.h"
#include "tables/tarn_tbl.h"
#include "tests/standin/file_faults.h"
#include "tests/standin/standin.h"
#include "tests/support/schema_text.h"

namespace tables_test {

using standin::log_texts;
using standin::logged;
using standin::pool;
using texts = std::vector<std::string>;

// Formats a message as it is expected.
__attribute__((format(printf, 1, 2))) inline std::string message(const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  std::string out(static_cast<size_t>(vsnprintf(nullptr, 0, format, again)) + 1, '\0');
  va_end(again);
  vsnprintf(out.data(), out.size(), format, args);
  va_end(args);
  out.pop_back();
  return out;
}

using schema_text::column;

// A table of three columns; tests change what they are about.
struct table_spec : schema_text::table {
  table_spec() : table{"t", {{"a", 15, true}, {"b", 15}, {"c", 15, true}}} {}
};

class TablesTest : public testing::Test {
 protected:
  TablesTest() {
    standin::reset();
    install_engine_hooks();
    std::string pattern = testing::TempDir() + "tables_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    dir_ = pattern + "/";
    std::filesystem::create_directory(dir_ + "main");
    std::filesystem::create_directory(dir_ + "backup");
    no_ranges_ = dir_ + "no_private_ranges.txt";
    port_settings.private_ranges_file_path = no_ranges_.c_str();
    errno = 0;
  }

  ~TablesTest() override {
    standin::stop_failing();
    standin::stop_failing_files();
    EXPECT_EQ(standin::open_streams(), 0);
    standin::watch_files("");
    for (const tarn_tbl &table : all_tarn_tbls())
      EXPECT_TRUE(table.lock == nullptr || *table.lock == 0) << table.table_name << " stays locked";
    end();
    standin::check_blocks();
    EXPECT_EQ(standin::leak_report(private_memory_is_the_scripts_ ? pool::shm : pool::both), "");
    EXPECT_THAT(standin::memory_errors(), testing::IsEmpty());
    EXPECT_THAT(standin::misuses(), testing::IsEmpty());
    cfg_file_path = "";
    standin::reset();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  // Ends what start began, as the module's own end does.
  void end() {
    destroy_tables();
    free_registry();
    destroy_port_maps();
    for (const port_map_kind &kind : port_map_kinds) *kind.map = nullptr;
  }

  std::string path(const std::string &name) const { return dir_ + name; }
  std::string main_file(const std::string &name = "t.txt") const { return dir_ + "main/" + name; }
  std::string backup_file(const std::string &name = "t.txt") const {
    return dir_ + "backup/" + name + ".backup";
  }

  // A new file each time: file systems flush one that is cut off and written again, which takes
  // its time. Past the functions that the tests watch.
  static void write(const std::string &file, const std::string &text) {
    syscall(SYS_unlink, file.c_str());
    std::ofstream(file, std::ios::binary) << text;
  }

  // The file's content, or "<none>".
  static std::string read(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return "<none>";
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

  static bool exists(const std::string &file) {
    std::error_code ignored;
    return std::filesystem::symlink_status(file, ignored).type() !=
           std::filesystem::file_type::not_found;
  }

  // A schema below this test's directories.
  std::string schema_of(const std::vector<table_spec> &tables) const {
    return schema_text::schema(path("main/"), path("backup/"), tables);
  }

  // create_tables on that schema text, with a new registry.
  bool create(const std::string &schema) {
    end();
    if (!make_registry()) abort();
    schema_path_ = dir_ + "schema.cfg";
    write(schema_path_, schema);
    cfg_file_path = schema_path_.c_str();
    return create_tables();
  }

  // Tables with locks below this test's directories; the log starts behind that.
  void start(const std::vector<table_spec> &tables) {
    ASSERT_TRUE(create(schema_of(tables))) << standin::log_dump();
    ASSERT_TRUE(init_locks());
    standin::clear_logs();
    errno = 0;
  }

  tarn_tbl *start(const table_spec &table) {
    start(std::vector<table_spec>{table});
    return &tarn_tbl_mngt->tables[0];
  }

  static tarn_tbl *table(size_t n = 0) { return &tarn_tbl_mngt->tables[n]; }

  // A row through the engine, counted as an insert would.
  static memdb_row *add(tarn_tbl *to, std::initializer_list<const char *> row) {
    EXPECT_EQ(row.size(), to->tbl->col_cnt);
    memdb_row *const added = memdb_insert(to->tbl, row.begin());
    to->row_count++;
    to->state = TBL_CHANGED;
    return added;
  }

  // The rows, newest first, each as "a|b|c".
  static texts rows(const tarn_tbl *of) {
    texts out;
    for (const memdb_row *row = of->tbl->first; row != nullptr; row = row->next) {
      std::string image;
      for (uint32_t i = 0; i < of->tbl->col_cnt; i++) {
        if (i > 0) image += '|';
        image += memdb_get_field(of->tbl, row, i);
      }
      out.push_back(image);
    }
    return out;
  }

  // Texts of all messages of level ERR and above, and of WARN.
  static texts errors() {
    texts out;
    for (const standin::log_record &record : standin::logs())
      if (record.level <= L_ERR) out.push_back(record.text);
    return out;
  }
  static texts warnings() { return standin::log_texts(L_WARN); }
  static texts debug() { return standin::log_texts(L_DBG); }

  void watch() { standin::watch_files(dir_); }

  // Set where scripts were prepared: what a fix-up leaves in private memory is never given back.
  bool private_memory_is_the_scripts_ = false;
  std::string dir_;
  std::string schema_path_;
  std::string no_ranges_;
};

}  // namespace tables_test
