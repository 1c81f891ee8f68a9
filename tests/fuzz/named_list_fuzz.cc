// Named lists, converted and then parsed as the query that they became.
//
// Choices: order of the host's items, table, tail, allocation that fails. Then the list.
#include <algorithm>
#include <cstring>
#include <map>

#include "host/memory.h"
#include "query/named_params.h"
#include "query/query_input.h"
#include "query/text/field_strings.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

constexpr const char *TAILS[] = {nullptr, "", "10", "5,rest|of=it", "\\"};

// What the list means by the host's own reading of its items: nothing where it is refused.
std::optional<std::string> model(std::string list, const std::vector<std::string> &columns,
                                 const char *table, const char *tail) {
  std::map<std::string, std::pair<const char *, std::string>> first_written;
  if (!list.empty()) {
    if (list.back() == ';') list.pop_back();
    str text{list.data(), static_cast<int>(list.size())};
    param_hooks_t hooks;
    param_t *items = nullptr;
    if (parse_params(&text, PARAM_CLASS_ANY, &hooks, &items) < 0) return std::nullopt;
    bool known = true;
    for (const param_t *item = items; item != nullptr; item = item->next) {
      const std::string name(text_of(item->name));
      known = known && std::find(columns.begin(), columns.end(), name) != columns.end();
      auto &kept = first_written[name];
      if (kept.first == nullptr || item->name.s < kept.first)
        kept = {item->name.s, std::string(text_of(item->body))};
    }
    free_params(items);
    if (!known) return std::nullopt;
  }
  std::string out;
  for (const std::string &column : columns) {
    if (!out.empty() || &column != &columns.front()) out += '|';
    const auto found = first_written.find(column);
    out += found != first_written.end() ? found->second.second : "*";
  }
  return tail != nullptr ? std::string(table) + "," + out + "," + tail : out;
}

bool is_positional(const std::string &list) {
  return !list.empty() &&
         (list.find('|') != std::string::npos || list.find('=') == std::string::npos);
}

void check_parse(const std::string &query) {
  const fuzz::heap_text text(query);
  for (const int32_t op : {OP_SELECT, OP_INSERT}) {
    char name[TARN_NAME_SIZE] = "";
    query_scope in;
    if (!tarn_memdb_parse_input(text.get(), op, &in, name)) continue;
    REQUIRE(in.max_res > 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const bool forward = given.choice() % 2 == 1;
  const bool three_columns = given.choice() % 2 == 0;
  const char *const tail = TAILS[given.choice() % std::size(TAILS)];
  const unsigned failing = given.choice();
  const std::string list_text = given.rest();

  const fuzz::run run;
  standin::set_params_order(forward ? standin::params_order::forward
                                    : standin::params_order::reversed);
  fuzz::registry registry;
  const tarn_tbl *const table = three_columns ? registry.add("tbl", {{"a", 8}, {"bb", 8}, {"c", 8}})
                                              : registry.add("tbl", {{"only", 8}});
  const std::vector<std::string> columns =
      three_columns ? std::vector<std::string>{"a", "bb", "c"} : std::vector<std::string>{"only"};
  const std::optional<std::string> expected = model(list_text, columns, "tbl", tail);
  const size_t before = standin::live_count(standin::pool::both);

  fuzz::fail_allocation(failing);
  const fuzz::heap_text text(list_text);
  str list = text.get();
  const conversion outcome = tarn_memdb_convert_query_param_list(&list, table, tail);
  standin::stop_failing();
  switch (outcome) {
    case conversion::positional:
      REQUIRE(is_positional(list_text));
      REQUIRE(list.s == text.get().s && list.len == text.get().len);
      break;
    case conversion::failed:
      REQUIRE(!is_positional(list_text));
      REQUIRE(!expected || fuzz::memory_was_short());
      break;
    case conversion::converted:
      REQUIRE(!is_positional(list_text));
      REQUIRE(expected.has_value());
      REQUIRE(text_of(list) == *expected);
      REQUIRE(list.s[list.len] == '\0');
      REQUIRE(standin::live_count(standin::pool::pkg) == 1);
      check_parse(std::string(text_of(list)));
      pkg_free(list.s);
      break;
  }
  REQUIRE(memcmp(text.c_str(), list_text.data(), list_text.size()) == 0);
  REQUIRE(standin::live_count(standin::pool::both) == before);
  return 0;
}
