// Query texts for every operation, beside a model of the language that says what each becomes.
//
// Choices: operation, allocation that fails. Then the query.
#include "query/query_input.h"

#include <cstring>

#include "query/text/field_strings.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

struct outcome {
  std::vector<std::optional<std::string>> fields;
  int32_t max_res;
};

// Cuts at the separators that no backslash stands before. A lone backslash at the end of all
// counts as one more separator.
std::vector<std::string> cut(const std::string &text, char separator, size_t most) {
  std::vector<std::string> out(1);
  for (size_t i = 0; i < text.size(); ++i) {
    if (out.size() < most && text[i] == separator) {
      out.emplace_back();
    } else if (text[i] == '\\' && i + 1 == text.size()) {
      out.emplace_back();
    } else {
      out.back() += text[i];
      if (text[i] == '\\') out.back() += text[++i];
    }
  }
  return out;
}

std::string unescaped(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) out += text[text[i] == '\\' ? ++i : i];
  return out.substr(0, out.find('\0'));
}

// What a number leaves of the limit: nothing for one that is refused.
std::optional<int32_t> limit(const std::string &text, int32_t otherwise) {
  if (text.empty()) return otherwise;
  const bool negative = text[0] == '-';
  const std::string digits = text.substr(negative || text[0] == '+' ? 1 : 0);
  if (digits.find_first_not_of("0123456789") != std::string::npos) return otherwise;
  long double value = 0;
  for (const char c : digits) value = value * 10 + (c - '0');
  if (value > (negative ? 2147483648.0L : 2147483647.0L)) return otherwise;
  if (negative || value == 0) return std::nullopt;
  return static_cast<int32_t>(value);
}

std::optional<outcome> model(const std::string &query, int32_t op) {
  const std::string name = query.substr(0, std::min(query.find(','), query.find('\0')));
  const size_t columns = name == "t" ? 3 : name == "one" ? 1 : name == "wide" ? 12 : 0;
  if (columns == 0) return std::nullopt;

  // The walk that steps over the name honours escapes, and so may pass the comma that ended it.
  const std::vector<std::string> head = cut(query, ',', 2);
  if (head.size() < 2) return std::nullopt;
  const std::string rest = query.substr(std::min(head[0].size() + 1, query.size()));

  outcome out{{}, 100};
  std::vector<std::string> parts;
  if (op == OP_INSERT) {
    // A zero byte that no backslash stands before ends the list, and with it the query.
    parts = cut(rest, '\0', SIZE_MAX);
    if (parts.size() > 1) return std::nullopt;
  } else {
    parts = cut(rest, ',', SIZE_MAX);
  }
  for (const std::string &field : cut(parts[0], '|', SIZE_MAX)) {
    if (field == "*")
      out.fields.emplace_back(std::nullopt);
    else
      out.fields.emplace_back(unescaped(field));
  }
  if (out.fields.size() != columns) return std::nullopt;
  if (op == OP_INSERT) {
    bool any = false;
    for (const auto &field : out.fields) {
      if (!field) return std::nullopt;
      any = any || !field->empty();
    }
    if (!any) return std::nullopt;
    return out;
  }
  if (parts.size() > 1) {
    const std::optional<int32_t> given = limit(parts[1], out.max_res);
    if (!given) return std::nullopt;
    out.max_res = *given;
  }
  return out;
}

// The escape layer on the same bytes: what it escapes comes back, and lengths agree.
void check_escapes(const str &text) {
  const std::unique_ptr<char[]> escaped(new char[2 * static_cast<size_t>(text.len) + 1]);
  str out{escaped.get(), 0};
  tarn_memdb_escape(&text, &out);
  REQUIRE(static_cast<uint32_t>(out.len) == tarn_memdb_escaped_len(&text));
  REQUIRE(tarn_memdb_unescaped_len(&out) == static_cast<uint32_t>(text.len));
  const std::unique_ptr<char[]> back(new char[static_cast<size_t>(text.len) + 1]);
  str again{back.get(), 0};
  tarn_memdb_unescape(&out, &again);
  REQUIRE(text_of(again) == text_of(text));
  tarn_memdb_unescape(&text, &again);
  REQUIRE(static_cast<uint32_t>(again.len) == tarn_memdb_unescaped_len(&text));
}

// A walk goes forward, ends, and gives slices that the unescaping agrees with.
void check_walk(const str &text, char separator) {
  int steps = 0;
  for (char *cursor = text.s; cursor != nullptr; ++steps) {
    char *const from = cursor;
    str field{nullptr, -1};
    const uint32_t len = tarn_memdb_get_next_field(text, separator, &cursor, &field);
    REQUIRE(field.s == from);
    REQUIRE(field.len >= 0 && field.s + field.len <= text.s + text.len);
    REQUIRE(tarn_memdb_unescaped_len(&field) == len);
    REQUIRE(cursor == nullptr || (cursor > from && cursor <= text.s + text.len));
    REQUIRE(steps <= text.len + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::input given(data, size);
  const auto op = static_cast<int32_t>(given.choice() % 6);
  const unsigned failing = given.choice();
  const std::string query = given.rest();

  const fuzz::run run;
  fuzz::registry registry;
  registry.add("t", {{"a", 8}, {"b", 8}, {"c", 8}});
  registry.add("one", {{"only", 8}});
  registry.add("wide", std::vector<fuzz::column>(12, {"x", 8}));
  const size_t before = standin::live_count(standin::pool::both);

  fuzz::fail_allocation(failing);
  const fuzz::heap_text text(query);
  // Kept on the heap, so that a name longer than the buffer is seen.
  struct name_buffer {
    table_name_text text = "";
  };
  const auto name = std::make_unique<name_buffer>();
  query_in in;
  memset(&in, 0x5A, sizeof(in));
  const bool parsed = tarn_memdb_parse_input(text.get(), op, &in, name->text);
  REQUIRE(memchr(name->text, '\0', TARN_NAME_SIZE) != nullptr);
  const std::optional<outcome> expected = model(query, op);
  if (!parsed) {
    REQUIRE(!expected || fuzz::memory_was_short());
    REQUIRE(standin::live_count(standin::pool::both) == before);
  } else {
    REQUIRE(expected.has_value());
    REQUIRE(in.max_res == expected->max_res);
    REQUIRE(in.table->tbl->col_cnt == expected->fields.size());
    for (uint32_t i = 0; i < in.table->tbl->col_cnt; ++i) {
      REQUIRE((in.flds[i] == nullptr) == !expected->fields[i].has_value());
      REQUIRE(in.flds[i] == nullptr || in.flds[i] == *expected->fields[i]);
    }
    REQUIRE(standin::live_count(standin::pool::both) == before + 1);
    query_in_reset(&in);
    REQUIRE(standin::live_count(standin::pool::both) == before);
  }
  check_escapes(text.get());
  for (const char separator : {',', '|', '\0'}) check_walk(text.get(), separator);
  return 0;
}
