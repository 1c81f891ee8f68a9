// Ground for tests with several processes: the module started as a host starts it, with its shared
// memory in a mapping that forked processes share, and workers that run script functions on it.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/loader_symbols.h"
#include "tests/support/bucket_rows.h"
#include "tests/unit/tables/fixture.h"
#include "tests/unit/tables/processes.h"

namespace tables_test {

class MultiprocessTest : public TablesTest {
 protected:
  static constexpr int WORKERS = 4;
  static constexpr int QUIET = -10;

  MultiprocessTest() { private_memory_is_the_scripts_ = true; }

  ~MultiprocessTest() override {
    if (module_ == nullptr) return;
    for (const tarn_tbl &each : all_tarn_tbls()) EXPECT_EQ(*each.lock, 0u);
    module_->destroy();
    EXPECT_EQ(standin::leak_report(pool::shm), "");
  }

  // Starts the module with these tables; every worker inherits it.
  void start_module(const std::vector<table_spec> &tables) {
    standin::set_debug_level(QUIET);
    ASSERT_TRUE(standin::use_shared_mapping(64 << 20));
    schema_path_ = path("schema.cfg");
    write(schema_path_, schema_of(tables));
    cfg_file_path = schema_path_.c_str();
    module_ = std::make_unique<standin::loaded_module>(exports);
    ASSERT_EQ(module_->init(), 0);
  }

  // A script function with its parameters given as script variables, prepared before the fork.
  class function {
   public:
    function(const standin::loaded_module &module, const std::string &name,
             const std::vector<std::string> &parameters)
        : module_(module), command_(module.fixup(name, parameters)) {
      EXPECT_TRUE(command_.accepted()) << name;
    }

    // Runs it with the variables q and v holding these texts.
    int operator()(const std::string &q, const std::string &v = "") const {
      standin::set_var("q", q);
      standin::set_var("v", v);
      sip_msg message;
      return module_.run(command_, message);
    }

   private:
    const standin::loaded_module &module_;
    standin::command command_;
  };

  function prepare(const std::string &name, const std::vector<std::string> &parameters) const {
    return {*module_, name, parameters};
  }

  // One worker's notes for the end of the test, as lines of text.
  std::string notes_of(int worker) const { return path("notes" + std::to_string(worker)); }

  static texts lines_of(const std::string &file) {
    texts out;
    std::istringstream in(read(file));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }

  // List, count, chains and fields of the table fit together: each row is linked both ways, stands
  // in exactly the chain of its text, and is found there.
  static void expect_sound(const tarn_tbl *of) {
    const memdb_tbl *const tbl = of->tbl;
    std::vector<const memdb_row *> all;
    const memdb_row *before = nullptr;
    for (const memdb_row *row = tbl->first; row != nullptr; row = row->next) {
      ASSERT_EQ(row->prev, before);
      before = row;
      all.push_back(row);
      ASSERT_LE(all.size(), 1000000u);
    }
    ASSERT_EQ(tbl->last, before);
    ASSERT_EQ(of->row_count, static_cast<int32_t>(all.size()));
    for (const memdb_col &col : memdb_cols(tbl)) {
      if (!memdb_is_indexed(col)) continue;
      std::vector<const memdb_row *> chained;
      for (uint32_t i = 0; i < col.idx_len; i++) {
        const bool is_chain = memdb_bucket_kind(col.idx[i]).is_chain();
        const char *last_text = "";
        for (const memdb_row *row : bucket_rows(col, i, all.size() + 1)) {
          const char *const text = memdb_data(row) + col.offset;
          ASSERT_EQ(memdb_hash1(text) % col.idx_len, i);
          ASSERT_TRUE(!is_chain || strcmp(last_text, text) <= 0);
          last_text = text;
          chained.push_back(row);
        }
      }
      std::vector<const memdb_row *> sorted = all;
      std::sort(sorted.begin(), sorted.end());
      std::sort(chained.begin(), chained.end());
      ASSERT_EQ(chained, sorted);
    }
  }

  // Stored and loaded again, the table holds the same rows in the same order.
  static void expect_same_after_reload(tarn_tbl *of) {
    const texts before = rows(of);
    of->state = TBL_CHANGED;
    ASSERT_TRUE(store_table(of));
    load_table(of);
    EXPECT_EQ(rows(of), before);
  }

  std::unique_ptr<standin::loaded_module> module_;
};

}  // namespace tables_test
