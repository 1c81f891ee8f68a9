// Cutting, escaping and unescaping of field texts, and the two helpers on counted texts.
#include "query/text/field_strings.h"

#include <climits>
#include <random>

#include "tests/unit/query/query_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

const message ESCAPE_WARNING{L_WARN, "Bad escape detected\n"};
const message SIZE_MISMATCH{L_ERR, "Size mismatch"};

class FieldStringsTest : public QueryLanguageTest {
 protected:
  // One step of a walk: the slice, its unescaped length, and where the walk goes on, as an offset
  // into the line; nothing when it is over.
  struct step {
    std::string slice;
    uint32_t len;
    std::optional<ptrdiff_t> next;
    bool operator==(const step &other) const = default;
    friend std::ostream &operator<<(std::ostream &out, const step &shown) {
      return out << "{'" << shown.slice << "', " << shown.len << ", "
                 << (shown.next ? std::to_string(*shown.next) : "end") << "}";
    }
  };

  static step take(const str &line, char sep, ptrdiff_t from) {
    char *cursor = line.s + from;
    str field{nullptr, -1};
    const uint32_t len = tarn_memdb_get_next_field(line, sep, &cursor, &field);
    EXPECT_EQ(field.s, line.s + from);
    step out{string_of(field), len, std::nullopt};
    if (cursor != nullptr) out.next = cursor - line.s;
    return out;
  }

  static std::vector<step> walk(const std::string &text, char sep) {
    const exact_text line(text);
    std::vector<step> out;
    for (std::optional<ptrdiff_t> at = 0; at; at = out.back().next)
      out.push_back(take(line.get(), sep, *at));
    return out;
  }

  // The fields of a list with the expected count; nothing when the list is refused.
  static std::optional<field_values> fields_of(const std::string &text, uint32_t expected) {
    const exact_text list(text);
    char **const fields = tarn_memdb_create_fields(list.get(), &expected);
    if (fields == nullptr) return std::nullopt;
    field_values out = values_of(fields, expected);
    tarn_memdb_destroy_fields(fields);
    return out;
  }

  static std::string unescaped(const std::string &text) {
    const exact_text in(text);
    std::vector<char> room(text.size() + 1, '#');
    str out{room.data(), -1};
    tarn_memdb_unescape(&in.get(), &out);
    EXPECT_EQ(room[static_cast<size_t>(out.len)], '#') << "a terminator was written";
    return string_of(out);
  }

  static std::string escaped(const std::string &text) {
    const exact_text in(text);
    std::vector<char> room(2 * text.size() + 1, '#');
    str out{room.data(), -1};
    tarn_memdb_escape(&in.get(), &out);
    EXPECT_EQ(room[static_cast<size_t>(out.len)], '#') << "a terminator was written";
    return string_of(out);
  }
};

TEST_F(FieldStringsTest, WalkCutsAtEachSeparatorAndEndsWithNull) {
  EXPECT_THAT(walk("a|bc|", '|'),
              ElementsAre(step{"a", 1, 2}, step{"bc", 2, 5}, step{"", 0, std::nullopt}));
  EXPECT_THAT(walk("a||c", '|'),
              ElementsAre(step{"a", 1, 2}, step{"", 0, 3}, step{"c", 1, std::nullopt}));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FieldStringsTest, WalkOfAnEmptyLineGivesOneEmptyField) {
  EXPECT_THAT(walk("", '|'), ElementsAre(step{"", 0, std::nullopt}));
}

TEST_F(FieldStringsTest, WalkOfALoneSeparatorGivesTwoEmptyFields) {
  EXPECT_THAT(walk("|", '|'), ElementsAre(step{"", 0, 1}, step{"", 0, std::nullopt}));
}

TEST_F(FieldStringsTest, WalkStartsAtTheCursorAndStopsAtTheEndOfTheLine) {
  const exact_text line("users,alice|30");
  EXPECT_EQ(take(line.get(), ',', 2), (step{"ers", 3, 6}));
  EXPECT_EQ(take(line.get(), ',', 6), (step{"alice|30", 8, std::nullopt}));
  EXPECT_EQ(take(line.get(), ',', 14), (step{"", 0, std::nullopt}));
}

TEST_F(FieldStringsTest, WalkOfASliceNeverLooksBehindIt) {
  std::string line = "a|b|c";
  const str slice{line.data(), 3};
  EXPECT_EQ(take(slice, '|', 2), (step{"b", 1, std::nullopt}));
}

TEST_F(FieldStringsTest, EscapedSeparatorIsNoSeparatorAndStaysEscapedInTheSlice) {
  EXPECT_THAT(walk("a\\|b|c", '|'), ElementsAre(step{"a\\|b", 3, 5}, step{"c", 1, std::nullopt}));
  EXPECT_THAT(walk("a\\,b,c", ','), ElementsAre(step{"a\\,b", 3, 5}, step{"c", 1, std::nullopt}));
}

TEST_F(FieldStringsTest, EscapedBackslashDoesNotEscapeTheSeparatorBehindIt) {
  EXPECT_THAT(walk("a\\\\|b", '|'), ElementsAre(step{"a\\\\", 2, 4}, step{"b", 1, std::nullopt}));
}

TEST_F(FieldStringsTest, EveryEscapeCountsAsOneCharacter) {
  EXPECT_THAT(walk("\\a\\b\\\\\\|", '|'), ElementsAre(step{"\\a\\b\\\\\\|", 4, std::nullopt}));
}

TEST_F(FieldStringsTest, LoneClosingBackslashWarnsAndLeavesOneMoreEmptyField) {
  EXPECT_THAT(walk("ab\\", '|'), ElementsAre(step{"ab", 2, 3}, step{"", 0, std::nullopt}));
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
}

TEST_F(FieldStringsTest, LineOfOneBackslashIsTwoEmptyFields) {
  EXPECT_THAT(walk("\\", '|'), ElementsAre(step{"", 0, 1}, step{"", 0, std::nullopt}));
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
}

TEST_F(FieldStringsTest, WithoutASeparatorTheWholeRestIsOneField) {
  EXPECT_THAT(walk("a|b,c*\\d", NO_SEPARATOR), ElementsAre(step{"a|b,c*\\d", 7, std::nullopt}));
}

TEST_F(FieldStringsTest, WithoutASeparatorAZeroByteEndsTheField) {
  EXPECT_THAT(walk(std::string("ab\0cd", 5), NO_SEPARATOR),
              ElementsAre(step{"ab", 2, 3}, step{"cd", 2, std::nullopt}));
}

TEST_F(FieldStringsTest, WithoutASeparatorALoneBackslashEndsTheField) {
  EXPECT_THAT(walk("ab\\", NO_SEPARATOR), ElementsAre(step{"ab", 2, 3}, step{"", 0, std::nullopt}));
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
}

TEST_F(FieldStringsTest, AnEscapedZeroByteIsTakenIntoTheField) {
  EXPECT_THAT(walk(std::string("a\\\0b", 4), NO_SEPARATOR),
              ElementsAre(step{std::string("a\\\0b", 4), 3, std::nullopt}));
}

TEST_F(FieldStringsTest, SeparatorIsOneByteAlsoAboveAscii) {
  EXPECT_THAT(walk("a\xC3z", '\xC3'), ElementsAre(step{"a", 1, 2}, step{"z", 1, std::nullopt}));
}

struct list_case {
  const char *list;
  field_values fields;
};

TEST_F(FieldStringsTest, ListsGiveTheirFields) {
  const list_case cases[] = {
      {"a|b|c", {"a", "b", "c"}},
      {"a||c", {"a", "", "c"}},
      {"a|b|", {"a", "b", ""}},
      {"|", {"", ""}},
      {"", {""}},
      {"*|x", {std::nullopt, "x"}},
      {"*", {std::nullopt}},
      {"*|*|*", {std::nullopt, std::nullopt, std::nullopt}},
      {"\\*|x", {"*", "x"}},
      {"*a|**|a*", {"*a", "**", "a*"}},
      {" *|* ", {" *", "* "}},
      {"a\\|b", {"a|b"}},
      {"a\\,b|c,d", {"a,b", "c,d"}},
      {"a\\nb", {"anb"}},
      {"a\\\\", {"a\\"}},
      {"\\\\|\\||\\,", {"\\", "|", ","}},
      {"%7C|&|\"'", {"%7C", "&", "\"'"}},
  };
  for (const list_case &c : cases) {
    standin::clear_logs();
    EXPECT_EQ(fields_of(c.list, static_cast<uint32_t>(c.fields.size())), c.fields) << c.list;
    EXPECT_THAT(messages(), IsEmpty()) << c.list;
  }
}

TEST_F(FieldStringsTest, LoneClosingBackslashWarnsOncePerPassAndMakesOneMoreField) {
  EXPECT_EQ(fields_of("a\\", 2), (field_values{"a", ""}));
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING, ESCAPE_WARNING));
}

TEST_F(FieldStringsTest, LoneClosingBackslashMakesTheCountDifferAfterThePassThatCounts) {
  EXPECT_EQ(fields_of("a\\", 1), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING, SIZE_MISMATCH));
}

TEST_F(FieldStringsTest, StarBeforeALoneBackslashIsAWildcard) {
  EXPECT_EQ(fields_of("*\\", 2), (field_values{std::nullopt, ""}));
}

TEST_F(FieldStringsTest, OtherCountThanExpectedIsRefusedBeforeAnythingIsAllocated) {
  for (const uint32_t expected : {0u, 1u, 3u, UINT32_MAX}) {
    standin::clear_logs();
    standin::reset_allocation_count();
    EXPECT_EQ(fields_of("a|b", expected), std::nullopt);
    EXPECT_EQ(standin::allocation_count(pool::both), 0u);
    EXPECT_THAT(messages(), ElementsAre(SIZE_MISMATCH));
  }
}

TEST_F(FieldStringsTest, WithoutAnExpectedCountEveryListIsTaken) {
  const exact_text list("a|*|b\\|c|");
  char **const fields = tarn_memdb_create_fields(list.get(), nullptr);
  ASSERT_NE(fields, nullptr);
  EXPECT_EQ(values_of(fields, 4), (field_values{"a", std::nullopt, "b|c", ""}));
  tarn_memdb_destroy_fields(fields);
}

TEST_F(FieldStringsTest, NullTextHasNoFieldAtAll) {
  const uint32_t none = 0;
  const uint32_t one = 1;
  const str nothing{nullptr, 0};
  EXPECT_EQ(tarn_memdb_create_fields(nothing, &one), nullptr);
  EXPECT_THAT(messages(), ElementsAre(SIZE_MISMATCH));
  char **const fields = tarn_memdb_create_fields(nothing, &none);
  EXPECT_NE(fields, nullptr);
  tarn_memdb_destroy_fields(fields);
}

TEST_F(FieldStringsTest, BlockHasExactlyThePointersAndThePackedTexts) {
  const exact_text list("ab|*|\\*c||d");
  const uint32_t expected = 5;
  char **const fields = tarn_memdb_create_fields(list.get(), &expected);
  ASSERT_NE(fields, nullptr);
  const auto blocks = standin::live_blocks(pool::pkg);
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].address, fields);
  EXPECT_EQ(blocks[0].size, 5 * sizeof(char *) + 3 + 3 + 1 + 2);
  char *const texts = reinterpret_cast<char *>(fields + 5);
  EXPECT_EQ(std::string(texts, 9), std::string("ab\0*c\0\0d\0", 9));
  EXPECT_EQ(fields[0], texts);
  EXPECT_EQ(fields[1], nullptr);
  EXPECT_EQ(fields[2], texts + 3);
  EXPECT_EQ(fields[3], texts + 6);
  EXPECT_EQ(fields[4], texts + 7);
  tarn_memdb_destroy_fields(fields);
}

TEST_F(FieldStringsTest, ListOfWildcardsIsABlockOfPointersOnly) {
  const exact_text list("*|*|*|*");
  char **const fields = tarn_memdb_create_fields(list.get(), nullptr);
  ASSERT_NE(fields, nullptr);
  EXPECT_EQ(standin::live_bytes(pool::pkg), 4 * sizeof(char *));
  tarn_memdb_destroy_fields(fields);
}

TEST_F(FieldStringsTest, ListCostsOneAllocationHoweverLong) {
  std::string text = "f";
  for (int i = 0; i < 500; ++i) text += "|field";
  standin::reset_allocation_count();
  EXPECT_TRUE(fields_of(text, 501).has_value());
  EXPECT_EQ(standin::allocation_count(pool::both), 1u);
}

TEST_F(FieldStringsTest, FieldsOutliveTheLineTheyWereCutFrom) {
  exact_text list("alice|*|rome");
  char **const fields = tarn_memdb_create_fields(list.get(), nullptr);
  ASSERT_NE(fields, nullptr);
  list.overwrite();
  EXPECT_EQ(values_of(fields, 3), (field_values{"alice", std::nullopt, "rome"}));
  tarn_memdb_destroy_fields(fields);
}

TEST_F(FieldStringsTest, ExhaustedMemoryIsTheOnlyCriticalMessage) {
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(fields_of("a|b", 2), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(message{L_CRIT, "no more pkg memory\n"}));
}

// Lists on both sides of the number of fields that one pass finds room for, and with an escape,
// which takes them another way.

// count fields: values, wildcards and empty ones by turns, the last one a value.
field_values many_fields(size_t count) {
  field_values out;
  for (size_t i = 0; i + 1 < count; ++i) {
    if (i % 3 == 1)
      out.emplace_back(std::nullopt);
    else
      out.emplace_back(i % 3 == 0 ? "f" + std::to_string(i) : "");
  }
  out.emplace_back("last");
  return out;
}

std::string list_of(const field_values &fields) {
  std::string out;
  for (size_t i = 0; i < fields.size(); ++i)
    out += (i > 0 ? "|" : "") + (fields[i].has_value() ? *fields[i] : "*");
  return out;
}

TEST_F(FieldStringsTest, LongListsGiveTheirFieldsWithAndWithoutAnEscape) {
  for (const size_t count : {63u, 64u, 65u, 66u, 128u, 129u, 500u}) {
    field_values fields = many_fields(count);
    const std::string list = list_of(fields);
    const auto number = static_cast<uint32_t>(count);
    EXPECT_EQ(fields_of(list, number), fields) << count;
    fields.back() = "last|";
    EXPECT_EQ(fields_of(list + "\\|", number), fields) << count;
    fields.back() = "last";
    fields.emplace_back("");
    EXPECT_EQ(fields_of(list + "|", number + 1), fields) << count;
    EXPECT_THAT(messages(), IsEmpty());
  }
}

TEST_F(FieldStringsTest, ALongListsBlockHasNoByteToSpare) {
  for (const size_t count : {64u, 65u}) {
    const field_values fields = many_fields(count);
    size_t texts = 0;
    for (const auto &field : fields) texts += field.has_value() ? field->size() + 1 : 0;
    const exact_text list(list_of(fields));
    char **const block = tarn_memdb_create_fields(list.get(), nullptr);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(standin::live_bytes(pool::pkg), count * sizeof(char *) + texts) << count;
    tarn_memdb_destroy_fields(block);
  }
}

TEST_F(FieldStringsTest, ALongListOfAnotherCountThanExpectedIsRefused) {
  for (const uint32_t count : {64u, 65u}) {
    const std::string list = list_of(many_fields(count));
    for (const uint32_t expected : {0u, count - 1, count + 1}) {
      standin::clear_logs();
      EXPECT_EQ(fields_of(list, expected), std::nullopt) << count << " " << expected;
      EXPECT_THAT(messages(), ElementsAre(SIZE_MISMATCH));
    }
  }
}

TEST_F(FieldStringsTest, ExhaustedMemoryIsCriticalForLongAndEscapedListsToo) {
  for (const std::string &list : {list_of(many_fields(65)), std::string("a\\|b|*")}) {
    standin::clear_logs();
    standin::fail_at(pool::pkg, 1);
    const exact_text text(list);
    EXPECT_EQ(tarn_memdb_create_fields(text.get(), nullptr), nullptr) << list;
    EXPECT_THAT(messages(), ElementsAre(message{L_CRIT, "no more pkg memory\n"}));
  }
}

TEST_F(FieldStringsTest, DestroyingNullDoesNothing) {
  tarn_memdb_destroy_fields(nullptr);
  EXPECT_THAT(standin::memory_errors(), IsEmpty());
}

TEST_F(FieldStringsTest, UnescapeDropsTheBackslashAndKeepsWhatFollows) {
  EXPECT_EQ(unescaped(""), "");
  EXPECT_EQ(unescaped("plain"), "plain");
  EXPECT_EQ(unescaped("\\n\\,\\\\\\|\\*"), "n,\\|*");
  EXPECT_EQ(unescaped(std::string("a\\\0b", 4)), std::string("a\0b", 3));
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FieldStringsTest, UnescapeDropsALoneClosingBackslashWithAWarning) {
  EXPECT_EQ(unescaped("ab\\"), "ab");
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
  EXPECT_EQ(unescaped("\\"), "");
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING, ESCAPE_WARNING));
}

TEST_F(FieldStringsTest, UnescapedLengthIsWhatUnescapeWrites) {
  for (const char *text : {"", "a", "\\a", "a\\\\", "\\\\\\,", "a\\"}) {
    const exact_text in(text);
    standin::clear_logs();
    EXPECT_EQ(tarn_memdb_unescaped_len(&in.get()), unescaped(text).size()) << text;
    EXPECT_THAT(messages().size() % 2, 0u) << "both warn, or none does: " << text;
  }
}

TEST_F(FieldStringsTest, UnescapedLengthWarnsOfALoneClosingBackslash) {
  const exact_text in("ab\\");
  EXPECT_EQ(tarn_memdb_unescaped_len(&in.get()), 2u);
  EXPECT_THAT(messages(), ElementsAre(ESCAPE_WARNING));
}

TEST_F(FieldStringsTest, EscapeSetsABackslashBeforeEachSpecialCharacter) {
  EXPECT_EQ(escaped(""), "");
  EXPECT_EQ(escaped("plain text"), "plain text");
  EXPECT_EQ(escaped(",|\\*"), "\\,\\|\\\\\\*");
  EXPECT_EQ(escaped("a,b"), "a\\,b");
}

TEST_F(FieldStringsTest, EscapeTreatsAZeroByteAsSpecial) {
  const std::string zero("a\0b", 3);
  EXPECT_EQ(escaped(zero), std::string("a\\\0b", 4));
  const exact_text in(zero);
  EXPECT_EQ(tarn_memdb_escaped_len(&in.get()), 4u);
}

TEST_F(FieldStringsTest, NegativeLengthIsNoTextToEscape) {
  char text[] = "a,b";
  char written[8] = "";
  const str in{text, -1};
  str out{written, 5};
  tarn_memdb_escape(&in, &out);
  EXPECT_EQ(out.len, 0);
  EXPECT_EQ(tarn_memdb_escaped_len(&in), 0u);
}

TEST_F(FieldStringsTest, BackslashAsASeparatorEscapesRatherThanSeparates) {
  EXPECT_EQ(walk("a\\b", '\\'), (std::vector<step>{{"a\\b", 2, std::nullopt}}));
}

TEST_F(FieldStringsTest, EscapedLengthCountsEverySpecialByteOnceMore) {
  for (int c = 0; c < 256; ++c) {
    const std::string text(1, static_cast<char>(c));
    const exact_text in(text);
    const bool special = std::string(",|\\*").find(text[0]) != std::string::npos || c == 0;
    EXPECT_EQ(tarn_memdb_escaped_len(&in.get()), special ? 2u : 1u) << c;
    EXPECT_EQ(escaped(text).size(), special ? 2u : 1u) << c;
  }
}

TEST_F(FieldStringsTest, EscapedBytesOfAnyKindComeBackAsTheyWere) {
  std::mt19937 random(31);
  for (int round = 0; round < 2000; ++round) {
    std::string text(random() % 24, '\0');
    for (char &c : text) c = ",|\\*ab\0\xFF"[random() % 8];
    const std::string safe = escaped(text);
    EXPECT_EQ(unescaped(safe), text);
    const exact_text in(text);
    EXPECT_EQ(tarn_memdb_escaped_len(&in.get()), safe.size());
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FieldStringsTest, EscapedValuesSurviveInAFieldList) {
  std::mt19937 random(32);
  for (int round = 0; round < 2000; ++round) {
    field_values values(1 + random() % 5);
    std::string list;
    for (size_t i = 0; i < values.size(); ++i) {
      if (i > 0) list += '|';
      if (random() % 4 == 0) {
        list += '*';
        continue;
      }
      std::string text(random() % 6, '\0');
      for (char &c : text) c = ",|\\*ab"[random() % 6];
      values[i] = text;
      list += escaped(text);
    }
    EXPECT_EQ(fields_of(list, static_cast<uint32_t>(values.size())), values) << list;
  }
}

// The language told another way: characters are first paired with whether they are escaped, and
// the list is then cut at the bars that are not.
std::vector<std::optional<std::string>> model_fields(std::string list) {
  size_t trailing = 0;
  while (trailing < list.size() && list[list.size() - 1 - trailing] == '\\') ++trailing;
  const bool lone = trailing % 2 == 1;
  if (lone) list.back() = '|';
  std::vector<std::pair<char, bool>> chars;
  for (size_t i = 0; i < list.size(); ++i) {
    const bool escaped = list[i] == '\\';
    if (escaped) ++i;
    chars.emplace_back(list[i], escaped);
  }
  std::vector<std::vector<std::pair<char, bool>>> cut(1);
  for (const auto &c : chars) {
    if (c == std::pair('|', false))
      cut.emplace_back();
    else
      cut.back().push_back(c);
  }
  std::vector<std::optional<std::string>> out;
  for (const auto &field : cut) {
    if (field.size() == 1 && field[0] == std::pair('*', false)) {
      out.emplace_back(std::nullopt);
      continue;
    }
    std::string text;
    for (const auto &c : field) text += c.first;
    out.emplace_back(text);
  }
  return out;
}

TEST_F(FieldStringsTest, RandomListsAgreeWithAPlainModel) {
  std::mt19937 random(33);
  for (int round = 0; round < 20000; ++round) {
    std::string list(random() % 12, '\0');
    for (char &c : list) c = "|\\*,ab"[random() % 6];
    const field_values expected = model_fields(list);
    EXPECT_EQ(fields_of(list, static_cast<uint32_t>(expected.size())), expected) << list;
    EXPECT_EQ(fields_of(list, static_cast<uint32_t>(expected.size() + 1)), std::nullopt) << list;
  }
}

struct number_case {
  const char *text;
  bool is_number;
  int32_t value;
};

TEST_F(FieldStringsTest, NumbersAreReadAsFarAsTheyGo) {
  const number_case cases[] = {
      {"0", true, 0},
      {"7", true, 7},
      {"+7", true, 7},
      {"-7", true, -7},
      {"-0", true, 0},
      {"007", true, 7},
      {"+", true, 0},
      {"-", true, 0},
      {"2147483647", true, INT_MAX},
      {"+2147483647", true, INT_MAX},
      {"-2147483648", true, INT_MIN},
      {"00000000002147483647", true, INT_MAX},
      {"2147483648", false, INT_MAX},
      {"2147483650", false, INT_MAX},
      {"-2147483649", false, INT_MIN},
      {"-2147483650", false, INT_MIN},
      {"99999999999", false, INT_MAX},
      {"-99999999999", false, INT_MIN},
      {"4294967297", false, INT_MAX},
      {"2147483648a", false, INT_MAX},
      {"12a", false, 12},
      {"-12a", false, -12},
      {"a12", false, 0},
      {" 12", false, 0},
      {"12 ", false, 12},
      {"1 2", false, 1},
      {"+-7", false, 0},
      {"--7", false, 0},
      {"7+", false, 7},
      {"1.5", false, 1},
      {"0x10", false, 0},
      {"1\\0", false, 1},
  };
  for (const number_case &c : cases) {
    const exact_text text(c.text);
    int32_t value = 4711;
    EXPECT_EQ(str_to_sint(&text.get(), &value), c.is_number) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FieldStringsTest, NumberOfNoCharactersIsZeroWhateverStandsThere) {
  for (const char *behind : {"7", "-7", "x", ""}) {
    std::string readable = behind;
    const str text{readable.data(), 0};
    int32_t value = 4711;
    EXPECT_TRUE(str_to_sint(&text, &value)) << behind;
    EXPECT_EQ(value, 0) << behind;
  }
}

TEST_F(FieldStringsTest, NumberEndsAtTheLengthOfItsText) {
  std::string longer = "1234";
  const str text{longer.data(), 2};
  int32_t value = 0;
  EXPECT_TRUE(str_to_sint(&text, &value));
  EXPECT_EQ(value, 12);
}

TEST_F(FieldStringsTest, NumberFromWhatIsNoTextFailsAndWritesNothing) {
  char digits[] = "12";
  const str good{digits, 2}, null_text{nullptr, 0}, negative{digits, -1};
  int32_t value = 4711;
  EXPECT_FALSE(str_to_sint(nullptr, &value));
  EXPECT_FALSE(str_to_sint(&null_text, &value));
  EXPECT_FALSE(str_to_sint(&negative, &value));
  EXPECT_EQ(value, 4711);
  EXPECT_FALSE(str_to_sint(&good, nullptr));
}

}  // namespace
