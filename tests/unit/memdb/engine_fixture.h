// Engine tests' ground: an allocator that counts and fails, a message catcher, and short ways to
// make tables, insert rows and read them back. Everything is back to the engine's defaults after
// each test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "memdb/index/directory.h"
#include "memdb/index/index.h"
#include "memdb/memdb.h"
#include "tests/support/bucket_rows.h"

namespace engine_test {

// What the hooks saw in the present test.
struct engine_record {
  std::map<void *, size_t> live;
  int allocations = 0;
  int fail_at = 0;  // number of the allocation to fail, 0 for none
  int frees = 0;
  int bad_frees = 0;
  std::vector<std::string> errors;    // texts at level err
  std::vector<std::string> warnings;  // texts at level warn
  std::vector<std::string> reports;   // texts given to memdb_log_err
};
inline engine_record *record;

inline void *note_block(void *block, size_t size) {
  record->live[block] = size;
  return block;
}

inline bool fails_now() { return ++record->allocations == record->fail_at; }

// Fresh blocks aren't zero, so that what counts on zeros is seen.
inline void *test_malloc(size_t size) {
  if (fails_now()) return nullptr;
  void *const block = malloc(size != 0 ? size : 1);
  memset(block, 0xA5, size);
  return note_block(block, size);
}

inline void *test_calloc(size_t count, size_t size) {
  if (fails_now()) return nullptr;
  return note_block(calloc(count != 0 ? count : 1, size), count * size);
}

inline void test_free(void *block) {
  if (block == nullptr) return;
  record->frees++;
  if (record->live.erase(block) == 0) {
    record->bad_frees++;
    return;
  }
  free(block);
}

inline void report(const char *message) { record->reports.emplace_back(message); }

__attribute__((format(printf, 3, 4))) inline void catch_message(memdb_log_level level,
                                                                const memdb_log_site &,
                                                                const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, fmt, again)) + 1, '\0');
  va_end(again);
  vsnprintf(text.data(), text.size(), fmt, args);
  va_end(args);
  text.pop_back();
  (level == memdb_log_level::err ? record->errors : record->warnings).push_back(text);
}

constexpr uint32_t PLAIN = 0;
constexpr uint32_t INDEXED = MEMDB_COL_INDEXED;
constexpr const char *ANY = nullptr;

using texts = std::vector<std::string>;
using values = std::vector<const char *>;

class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    record = &seen_;
    memdb_malloc = test_malloc;
    memdb_calloc = test_calloc;
    memdb_free = test_free;
    memdb_log_sink = catch_message;
    memdb_log_err = report;
  }

  ~EngineTest() override {
    for (memdb_tbl *table : tables_) memdb_destroy_tbl(table);
    EXPECT_TRUE(seen_.live.empty()) << seen_.live.size() << " blocks were never freed";
    EXPECT_EQ(seen_.bad_frees, 0);
    record = nullptr;
    memdb_malloc = malloc;
    memdb_calloc = calloc;
    memdb_free = free;
    memdb_retire = [](void *block) { memdb_free(block); };
    memdb_directories = {};
    memdb_hash_str = memdb_hash1;
    memdb_log_err = nullptr;
    memdb_idx_len = 512;
    memdb_log_sink = default_sink_;
  }

  // A table that is destroyed at the end of the test.
  memdb_tbl *make(std::initializer_list<tbl_dcl> columns) {
    memdb_tbl *const table =
        memdb_create_tbl(columns.begin(), static_cast<uint32_t>(columns.size()));
    if (table != nullptr) tables_.push_back(table);
    return table;
  }

  void destroy(memdb_tbl *table) {
    std::erase(tables_, table);
    memdb_destroy_tbl(table);
  }

  static memdb_row *insert(memdb_tbl *table, const values &row) {
    EXPECT_EQ(row.size(), table->col_cnt);
    return memdb_insert(table, row.data());
  }

  static std::string text(const memdb_tbl *table, const memdb_row *row, uint32_t col) {
    return memdb_get_field(table, row, col);
  }

  // "a|b|c"
  static std::string image(const memdb_tbl *table, const memdb_row *row) {
    std::string out;
    for (uint32_t i = 0; i < table->col_cnt; i++) {
      if (i > 0) out += '|';
      out += memdb_get_field(table, row, i);
    }
    return out;
  }

  // The rows of a search in the order in which it gives them.
  static texts found(memdb_tbl *table, const values &wanted) {
    EXPECT_EQ(wanted.size(), table->col_cnt);
    texts out;
    memdb_cursor cursor;
    for (memdb_row *row = memdb_select(table, wanted.data(), &cursor); row != nullptr;
         row = memdb_select_next(&cursor))
      out.push_back(image(table, row));
    return out;
  }

  // The row list from the newest and, checked to be its mirror, from the oldest.
  static texts listed(const memdb_tbl *table) {
    texts out;
    texts back;
    for (const memdb_row *row = table->first; row != nullptr; row = row->next)
      out.push_back(image(table, row));
    for (const memdb_row *row = table->last; row != nullptr; row = row->prev)
      back.insert(back.begin(), image(table, row));
    EXPECT_EQ(out, back);
    if (table->first != nullptr) {
      EXPECT_EQ(table->first->prev, nullptr);
      EXPECT_EQ(table->last->next, nullptr);
    }
    return out;
  }

  static memdb_row *link_of(const memdb_row *row, const memdb_col &col) {
    memdb_row *next;
    memcpy(&next, memdb_data(row) + col.offset - sizeof(next), sizeof(next));
    return next;
  }

  // The rows of one chain.
  static std::vector<memdb_row *> chain(const memdb_col &col, uint32_t bucket) {
    EXPECT_TRUE(memdb_bucket_kind(col.idx[bucket]).is_chain());
    return bucket_rows(col, bucket);
  }

  // Number of rows in all chains of a column.
  static size_t chained(const memdb_col &col) {
    size_t sum = 0;
    for (uint32_t i = 0; i < col.idx_len; i++) sum += chain(col, i).size();
    return sum;
  }

  engine_record seen_;

 private:
  std::vector<memdb_tbl *> tables_;
  decltype(memdb_log_sink) default_sink_ = memdb_log_sink;
};

}  // namespace engine_test
