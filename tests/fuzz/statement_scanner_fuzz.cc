// Every routine of the statement scanner on one text without a spare byte behind it.
//
// Choices: number of columns, allocation that fails. Then the text.
#include "query/statement_scanner.h"

#include <algorithm>
#include <cstring>

#include "tests/fuzz/fuzz_support.h"

namespace {

constexpr const char *NAMES[] = {"a", "b", "c", "d", "city_of_a_name_with_31_characters"};

// Reads all of a text that lies in a block of the module's.
size_t read(const char *text) {
  REQUIRE(text != nullptr);
  return strlen(text);
}

void check_steps(const char *text) {
  const char *const word = skip_white_spaces(text);
  REQUIRE(word == nullptr ? strspn(text, " ") == strlen(text)
                          : word == text + strspn(text, " ") && *word != '\0');
  const char *const blank = go_to_next_white_space(text);
  REQUIRE(blank == strchr(text, ' '));
  for (const char *token : {"INSERT", "INTO", "VALUES", "DELETE", "FROM", "WHERE", "SELECT",
                            "UPDATE", "SET", "MAX=", ""}) {
    const char *const behind = look_for_token(text, token);
    if (behind == nullptr) continue;
    REQUIRE(strncmp(word, token, strlen(token)) == 0);
    REQUIRE(behind >= word + strlen(token) && *behind != ' ' && *behind != '\0');
  }
}

void check_table_name(const char *text) {
  const pkg_owner<char> name(get_table_name_from_query(text));
  if (!name) return;
  const char *const word = skip_white_spaces(text);
  REQUIRE(read(name.get()) == strcspn(word, " "));
  REQUIRE(read(name.get()) < TARN_NAME_SIZE);
}

void check_fields(const char *text, const tarn_tbl *table) {
  int32_t count = -1;
  const pkg_owner<char *> names(get_fields_name(text, table, &count));
  if (!names) return;
  REQUIRE(count >= 0 && static_cast<uint32_t>(count) < table->tbl->col_cnt);
  for (int32_t i = 0; i < count; ++i) read(names[static_cast<size_t>(i)]);
  const pkg_owner<int32_t> positions(validate_field_list(names.get(), table, count));
  if (!positions) return;
  for (int32_t i = 0; i < count; ++i) {
    const int32_t column = positions[static_cast<size_t>(i)];
    REQUIRE(column >= 0 && static_cast<uint32_t>(column) < table->tbl->col_cnt);
    REQUIRE(column_name(table, static_cast<uint32_t>(column)) == names[static_cast<size_t>(i)]);
  }
}

// The values of an insert that names up to three columns, the last of them first.
void check_values(const char *text, const tarn_tbl *table) {
  const auto columns = static_cast<int32_t>(table->tbl->col_cnt);
  const int32_t positions[] = {columns - 1, 0, columns - 1};
  for (int32_t count = 0; count <= std::min(columns, 3); ++count) {
    const pkg_owner<char *> values(generate_value_list(text, table, positions, count));
    if (!values) continue;
    for (int32_t i = 0; i < columns; ++i) read(values[static_cast<size_t>(i)]);
    // The index of the table is written there later.
    memset(values[0], '9', 255);
    values[0][255] = '\0';
  }
}

void check_pairs(const char *text, const tarn_tbl *table) {
  pkg_owner<char> texts;
  const pkg_owner<char *> values(generate_pair_list(text, table, &texts));
  REQUIRE(static_cast<bool>(values) == static_cast<bool>(texts));
  if (!values) return;
  // A value of 256 bytes starts 32 bytes behind the one before it and may go on from its end.
  const size_t longest = 256 + 32 * (table->tbl->col_cnt - 1);
  for (uint32_t i = 0; i < table->tbl->col_cnt; ++i)
    if (values[i] != nullptr) REQUIRE(read(values[i]) <= longest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const unsigned columns = 1 + given.choice() % 5;
  const unsigned failing = given.choice();

  const fuzz::run run;
  fuzz::registry registry;
  std::vector<fuzz::column> declared;
  for (unsigned i = 0; i < columns; ++i) declared.push_back({NAMES[i], 8});
  const tarn_tbl *const table = registry.add("t", declared);
  const size_t before = standin::live_count(standin::pool::both);

  fuzz::fail_allocation(failing);
  const fuzz::heap_text text(given.rest());
  check_steps(text.c_str());
  check_table_name(text.c_str());
  check_fields(text.c_str(), table);
  check_values(text.c_str(), table);
  check_pairs(text.c_str(), table);
  REQUIRE(standin::live_count(standin::pool::both) == before);
  return 0;
}
