// What the tests of the query language share: texts that a sanitizer guards to the byte, a registry
// made by hand, and the rule that a test leaves no block behind.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "query/query_input.h"
#include "query/text/field_strings.h"
#include "tables/shared/shared_memory.h"
#include "tables/tarn_tbl.h"
#include "tests/standin/standin.h"

// A counted text on the heap with no byte to spare, so that reading behind it is an error that
// AddressSanitizer sees.
class exact_text {
 public:
  explicit exact_text(const std::string &text)
      : bytes_(new char[text.size()]), text_{bytes_.get(), static_cast<int>(text.size())} {
    memcpy(bytes_.get(), text.data(), text.size());
  }

  const str &get() const { return text_; }
  // Spoils the bytes, as a caller does who uses the buffer for the next text.
  void overwrite() { memset(bytes_.get(), '#', static_cast<size_t>(text_.len)); }

 private:
  std::unique_ptr<char[]> bytes_;
  str text_;
};

inline std::string string_of(const str &text) {
  return std::string(text.s, static_cast<size_t>(text.len));
}

// A field array as values; nothing for a wildcard.
using field_values = std::vector<std::optional<std::string>>;

inline field_values values_of(char *const *fields, size_t count) {
  field_values out;
  for (size_t i = 0; i < count; ++i)
    out.push_back(fields[i] != nullptr ? std::optional<std::string>(fields[i]) : std::nullopt);
  return out;
}

// Everything logged at one of the levels above debug, in order.
using message = std::pair<int, std::string>;
inline std::vector<message> messages() {
  std::vector<message> out;
  for (const standin::log_record &record : standin::logs())
    if (record.level != L_DBG) out.emplace_back(record.level, record.text);
  return out;
}

class QueryLanguageTest : public testing::Test {
 protected:
  void SetUp() override {
    standin::reset();
    install_engine_hooks();
    registry_ = {};
    tables_.assign(MOST_TABLES, tarn_tbl{});
    registry_.tables = tables_.data();
    tarn_tbl_mngt = &registry_;
  }

  void TearDown() override {
    for (tarn_tbl &table : tables_) memdb_destroy_tbl(table.tbl);
    tarn_tbl_mngt = nullptr;
    EXPECT_EQ(standin::leak_report(standin::pool::both), "");
    standin::check_blocks();
    EXPECT_THAT(standin::memory_errors(), testing::IsEmpty());
    EXPECT_THAT(standin::misuses(), testing::IsEmpty());
    standin::reset();
  }

  tarn_tbl *add_table(const std::string &name, const std::vector<std::string> &columns,
                      int32_t max_rows = 100) {
    tarn_tbl &table = tables_.at(static_cast<size_t>(registry_.num_table++));
    name.copy(table.table_name, sizeof(table.table_name) - 1);
    table.max_rows = max_rows;
    table.num_fields = static_cast<int32_t>(columns.size());
    std::vector<tbl_dcl> declared(columns.size(), tbl_dcl{31, 0});
    std::vector<char *> &names = field_names_.emplace_back();
    for (const std::string &column : columns) names.push_back(texts_.emplace_back(column).data());
    table.field_name = names.data();
    table.tbl = memdb_create_tbl(declared.data(), static_cast<uint32_t>(columns.size()));
    EXPECT_NE(table.tbl, nullptr);
    return &table;
  }

  static constexpr size_t MOST_TABLES = 4;

 private:
  tarn_mngt registry_{};
  std::vector<tarn_tbl> tables_;
  std::deque<std::vector<char *>> field_names_;
  std::deque<std::string> texts_;
};
