// The four statement functions on a table with some rows: one statement per line, either as it
// stands or put together from the words of the grammar.
//
// Choices: shape of the table, how lines become statements, allocation that fails. Then the lines,
// each beginning with the function's number.
#include <algorithm>
#include <cstring>

#include "host/imports.h"
#include "script/params/script_query.h"
#include "script/statement/statement_functions.h"
#include "tables/shared/shared_memory.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using rows = std::vector<std::vector<std::string>>;

constexpr const char *WORDS[] = {"INSERT ",
                                 "INTO ",
                                 "VALUES ",
                                 "DELETE ",
                                 "FROM ",
                                 "WHERE ",
                                 "SELECT ",
                                 "UPDATE ",
                                 "SET ",
                                 "MAX=",
                                 "t ",
                                 "p ",
                                 "a",
                                 "b",
                                 "c",
                                 "d",
                                 "=",
                                 ",",
                                 "''",
                                 "'",
                                 " ",
                                 "1",
                                 "2",
                                 "100",
                                 "-1",
                                 "x",
                                 "a=1",
                                 "b=2 ",
                                 "c=''",
                                 "a,b ",
                                 "1,2 ",
                                 "a value that is longer than its column",
                                 "DELETE FROM t WHERE ",
                                 "UPDATE t SET ",
                                 "INSERT INTO t ",
                                 "SELECT a,b FROM t WHERE "};

std::string from_words(const std::string &line) {
  std::string out;
  for (const char c : line) out += WORDS[static_cast<unsigned char>(c) % std::size(WORDS)];
  return out;
}

tarn_tbl *make_table(fuzz::registry *registry, unsigned shape) {
  tarn_tbl *const table =
      registry->add("t", {{"a", 8, true}, {"b", 8}, {"c", 40, true}, {"d", 3}}, 6);
  table->use_index = shape & 1;
  table->duplicated_data_check = (shape >> 1) & 1;
  if ((shape >> 2) & 1) strcpy(table->log_tag, "TAG");
  table->lock = generate_lock();
  REQUIRE(table->lock != nullptr);
  for (const auto &values :
       {std::vector<const char *>{"1", "2", "x", "y"}, std::vector<const char *>{"2", "2", "x", ""},
        std::vector<const char *>{"3", "", "z", "y"}}) {
    REQUIRE(memdb_insert(table->tbl, values.data()) != nullptr);
    ++table->row_count;
  }
  table->next_index = 4;
  return table;
}

// A list of two AVPs, as the host makes it.
struct avp_list {
  avp_list() {
    for (size_t i = 0; i < 2; ++i) {
      str text{names[i], 8};
      REQUIRE(pv_parse_spec2(&text, &list[i].sname, 0) != nullptr);
    }
    list[0].next = &list[1];
    list[1].next = nullptr;
  }
  char names[2][9] = {"$avp(v1)", "$avp(v2)"};
  pvname_list_t list[2];
};

int call(unsigned function, sip_msg *msg, pv_elem_t *format, avp_list *avps) {
  auto *const slot = reinterpret_cast<char *>(format);
  switch (function) {
    case 0:
      return sqll_tarn_memdb_insert(msg, slot, nullptr);
    case 1:
      return sqll_tarn_memdb_delete(msg, slot, nullptr);
    case 2:
      return sqll_tarn_memdb_select(msg, slot, reinterpret_cast<char *>(avps->list));
    default:
      return sqll_tarn_memdb_update(msg, slot, nullptr);
  }
}

void check(unsigned function, int result, const tarn_tbl &before_call, const tarn_tbl &table,
           const rows &before) {
  const rows after = fuzz::rows_of(table.tbl);
  fuzz::require_sound(&table);
  REQUIRE(table.lock->load() == 0);
  REQUIRE(table.next_index == before_call.next_index ||
          (function == 0 && table.next_index == before_call.next_index + 1));
  if (result == SCRIPT_FAILED || result == SCRIPT_NO_ROW) {
    REQUIRE(result == SCRIPT_FAILED || function != 0);
    REQUIRE(after == before);
    REQUIRE(table.state == before_call.state);
    return;
  }
  switch (function) {
    case 0:
      REQUIRE(table.use_index != 0 ? result == static_cast<int>(before_call.next_index)
                                   : result == SCRIPT_OK);
      REQUIRE(after.size() == before.size() + 1);
      REQUIRE(rows(after.begin() + 1, after.end()) == before);
      REQUIRE(after.size() <= static_cast<size_t>(table.max_rows));
      REQUIRE(table.state == TBL_CHANGED);
      break;
    case 1:
      REQUIRE(result == SCRIPT_OK);
      REQUIRE(after.size() < before.size());
      REQUIRE(table.state == TBL_CHANGED);
      break;
    case 2:
      REQUIRE(result == SCRIPT_OK);
      REQUIRE(after == before);
      REQUIRE(table.state == before_call.state);
      break;
    default:
      REQUIRE(result == SCRIPT_OK);
      REQUIRE(after.size() <= before.size());
      REQUIRE(table.state == TBL_CHANGED);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const unsigned shape = given.choice();
  const bool words = given.choice() % 2 == 1;
  const unsigned failing = given.choice();
  std::string lines = given.rest();

  const fuzz::run run;
  fuzz::registry registry;
  tarn_tbl *const table = make_table(&registry, shape);
  const size_t blocks_of_the_table = standin::live_count(standin::pool::shm);
  avp_list avps;
  sip_msg msg;
  fuzz::fail_allocation(failing);
  for (int i = 0; i < 8 && !lines.empty(); ++i) {
    const size_t end = std::min(lines.find('\n'), lines.size());
    const std::string line = lines.substr(0, end);
    lines.erase(0, end + 1);
    if (line.empty()) continue;
    const unsigned function = static_cast<unsigned char>(line[0]) % 4;
    const fuzz::heap_text text(words ? from_words(line.substr(1)) : line.substr(1));
    pv_elem_t format{text.get(), nullptr, nullptr};
    const rows before = fuzz::rows_of(table->tbl);
    const tarn_tbl table_before = *table;
    const size_t private_blocks = standin::live_count(standin::pool::pkg);
    const int result = call(function, &msg, &format, &avps);
    check(function, result, table_before, *table, before);
    REQUIRE(standin::live_count(standin::pool::pkg) == private_blocks);
    REQUIRE(standin::live_count(standin::pool::shm) ==
            blocks_of_the_table - 3 + fuzz::rows_of(table->tbl).size());
  }
  tarn_shm_free(table->lock);
  table->lock = nullptr;
  return 0;
}
