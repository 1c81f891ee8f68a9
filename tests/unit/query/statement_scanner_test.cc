// The statement scanner: what each routine gives, says and leaves.
#include "query/statement_scanner.h"

#include <algorithm>
#include <random>

#include "tests/unit/query/query_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

const message BAD_QUOTE{L_ERR, "Ilegal sintax for empty string. It should be: field_name=''\n"};
const message NO_FIELD_POS{L_ERR, "NULL value for field_pos\n"};

message no_memory(const std::string &block) {
  return {L_ERR, "Could not allocate memory for " + block + "\n"};
}
message no_field(const std::string &name) {
  return {L_ERR, "Table 't' does not have a field named '" + name + "'\n"};
}
message too_many(int count, int columns) {
  return {L_ERR, "Wrong number of fields (" + std::to_string(count) + ") for table 't' (" +
                     std::to_string(columns) + ")\n"};
}
message too_few(int values, int fields) {
  return {L_ERR, "Number of values (" + std::to_string(values) +
                     ") does not match number of fields (" + std::to_string(fields) + ")\n"};
}

// A statement in a block of its own size, so that reading behind its terminator is an error that
// AddressSanitizer sees.
class statement_text {
 public:
  explicit statement_text(const std::string &text) : bytes_(text + '\0') {}
  const char *get() const { return bytes_.get().s; }

 private:
  exact_text bytes_;
};

class StatementScannerTest : public QueryLanguageTest {
 protected:
  void SetUp() override {
    QueryLanguageTest::SetUp();
    table = add_table("t", {"a", "b", "c"});
    standin::clear_logs();
  }

  // Where a result stands in its text; nothing for null.
  static std::optional<size_t> place(const statement_text &text, const char *at) {
    if (at == nullptr) return std::nullopt;
    return static_cast<size_t>(at - text.get());
  }
  static std::optional<size_t> skipped(const std::string &text) {
    const statement_text guarded(text);
    return place(guarded, skip_white_spaces(guarded.get()));
  }
  static std::optional<size_t> next_blank(const std::string &text) {
    const statement_text guarded(text);
    return place(guarded, go_to_next_white_space(guarded.get()));
  }
  static std::optional<size_t> behind(const std::string &text, const std::string &token) {
    standin::clear_logs();
    const statement_text guarded(text);
    return place(guarded, look_for_token(guarded.get(), token.c_str()));
  }
  static std::optional<std::string> name_in(const std::string &text) {
    standin::clear_logs();
    const statement_text guarded(text);
    const pkg_owner<char> name(get_table_name_from_query(guarded.get()));
    return name ? std::optional<std::string>(name.get()) : std::nullopt;
  }

  using names = std::vector<std::string>;
  std::optional<names> fields_in(const std::string &text) const {
    standin::clear_logs();
    const statement_text guarded(text);
    int32_t count = -77;
    const pkg_owner<char *> list(get_fields_name(guarded.get(), table, &count));
    if (!list) {
      EXPECT_EQ(count, -77) << "a refused list tells no count";
      return std::nullopt;
    }
    return names(list.get(), list.get() + count);
  }

  std::optional<std::vector<int32_t>> columns_of(const names &fields) const {
    standin::clear_logs();
    std::vector<std::string> copies = fields;
    std::vector<char *> pointers;
    for (std::string &copy : copies) pointers.push_back(copy.data());
    const auto count = static_cast<int32_t>(fields.size());
    const pkg_owner<int32_t> positions(validate_field_list(pointers.data(), table, count));
    if (!positions) return std::nullopt;
    return std::vector<int32_t>(positions.get(), positions.get() + count);
  }

  std::optional<names> values_in(const std::string &text,
                                 const std::vector<int32_t> &positions) const {
    standin::clear_logs();
    const statement_text guarded(text);
    const pkg_owner<char *> list(generate_value_list(guarded.get(), table, positions.data(),
                                                     static_cast<int32_t>(positions.size())));
    if (!list) return std::nullopt;
    return names(list.get(), list.get() + table->tbl->col_cnt);
  }

  std::optional<field_values> pairs_in(const std::string &text) const {
    standin::clear_logs();
    const statement_text guarded(text);
    pkg_owner<char> texts;
    const pkg_owner<char *> list(generate_pair_list(guarded.get(), table, &texts));
    EXPECT_EQ(static_cast<bool>(list), static_cast<bool>(texts))
        << "array and texts are handed over together";
    if (!list) return std::nullopt;
    return values_of(list.get(), table->tbl->col_cnt);
  }

  tarn_tbl *table = nullptr;
};

std::optional<size_t> at(size_t place) { return place; }
constexpr std::nullopt_t NOWHERE = std::nullopt;

// Blanks.

TEST_F(StatementScannerTest, SkipsBlanksAndNothingElse) {
  EXPECT_EQ(skipped("abc"), at(0));
  EXPECT_EQ(skipped("   abc"), at(3));
  EXPECT_EQ(skipped(" \tabc"), at(1));
  EXPECT_EQ(skipped(" \nabc"), at(1));
}

TEST_F(StatementScannerTest, FindsTheEndOfATextOfBlanks) {
  EXPECT_EQ(skipped(""), NOWHERE);
  EXPECT_EQ(skipped("   "), NOWHERE);
}

TEST_F(StatementScannerTest, GoesToTheNextBlankAndStaysOnOne) {
  EXPECT_EQ(next_blank("abc def"), at(3));
  EXPECT_EQ(next_blank(" abc"), at(0));
  EXPECT_EQ(next_blank("a\tb c"), at(3));
}

TEST_F(StatementScannerTest, FindsNoBlankBeforeTheEnd) {
  EXPECT_EQ(next_blank(""), NOWHERE);
  EXPECT_EQ(next_blank("abc"), NOWHERE);
  EXPECT_EQ(next_blank("a\tb"), NOWHERE);
}

TEST_F(StatementScannerTest, TellsANullTextAtDebugAndGivesNull) {
  EXPECT_EQ(skip_white_spaces(nullptr), nullptr);
  EXPECT_EQ(go_to_next_white_space(nullptr), nullptr);
  EXPECT_THAT(standin::log_texts(L_DBG),
              ElementsAre("NULL value for str_q\n", "NULL value for str_q\n"));
  EXPECT_THAT(messages(), IsEmpty());
}

// Tokens.

TEST_F(StatementScannerTest, GoesBehindATokenAndTheBlanksThatFollow) {
  EXPECT_EQ(behind("INSERT INTO t", "INSERT"), at(7));
  EXPECT_EQ(behind("  INSERT   INTO t", "INSERT"), at(11));
  EXPECT_EQ(behind("INSERTINTO", "INSERT"), at(6)) << "it is a prefix";
  // Without a word where it ends the text.
  EXPECT_EQ(behind("WHERE", "WHERE"), NOWHERE);
  EXPECT_EQ(behind("WHERE   ", "WHERE"), NOWHERE);
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, TellsATokenThatIsNotThere) {
  for (const char *text : {"insert into", "INSER", "\tINSERT"}) {
    EXPECT_EQ(behind(text, "INSERT"), NOWHERE);
    EXPECT_THAT(messages(), ElementsAre(message{L_ERR, "Could not find token 'INSERT'\n"}));
  }
}

TEST_F(StatementScannerTest, TellsATextThatEndsBeforeAToken) {
  const message ended{L_ERR, "End of string reached before finding token 'FROM'\n"};
  EXPECT_EQ(behind("", "FROM"), NOWHERE);
  EXPECT_THAT(messages(), ElementsAre(ended));
  EXPECT_EQ(behind("  ", "FROM"), NOWHERE);
  EXPECT_THAT(messages(), ElementsAre(ended));
  standin::clear_logs();
  EXPECT_EQ(look_for_token(nullptr, "FROM"), nullptr);
  EXPECT_THAT(messages(), ElementsAre(ended));
}

// Table names.

TEST_F(StatementScannerTest, ReadsATableNameUpToTheBlankOrTheEnd) {
  const std::string longest(31, 'n');
  EXPECT_EQ(name_in("users name"), "users");
  EXPECT_EQ(name_in("  users"), "users");
  EXPECT_EQ(name_in("a,b|c\t* x"), "a,b|c\t*");
  EXPECT_EQ(name_in(longest), longest);
  EXPECT_EQ(name_in(longest + " x"), longest);
}

TEST_F(StatementScannerTest, GivesNullWithoutAWordForALongerTableName) {
  for (const size_t length : {size_t{32}, size_t{33}, size_t{5000}}) {
    EXPECT_EQ(name_in(std::string(length, 'n')), std::nullopt);
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(standin::live_count(pool::pkg), 0U);
  }
}

TEST_F(StatementScannerTest, TellsATextThatEndsBeforeATableName) {
  const message ended{L_ERR, "End of string reached before finding table name\n"};
  EXPECT_EQ(name_in("  "), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(ended));
  standin::clear_logs();
  EXPECT_EQ(get_table_name_from_query(nullptr), nullptr);
  EXPECT_THAT(messages(), ElementsAre(ended));
}

// Field lists.

TEST_F(StatementScannerTest, ReadsNamesBetweenCommasAndStepsOverOneCommaAheadOfAName) {
  const std::string long_name(3000, 'n');
  const std::vector<std::pair<std::string, names>> lists = {
      {"a", {"a"}},
      {"  b,a rest", {"b", "a"}},
      {"x=1,'y'", {"x=1", "'y'"}},
      {",a", {"a"}},
      {",,a", {"", "a"}},
      {"a,", {"a", ""}},
      {",", {""}},
      {long_name + ",a x", {long_name, "a"}},
      {"a," + long_name, {"a", long_name}},
  };
  for (const auto &[text, expected] : lists) {
    EXPECT_EQ(fields_in(text), expected) << text;
    EXPECT_THAT(messages(), IsEmpty());
  }
}

TEST_F(StatementScannerTest, RefusesAListOfAsManyNamesAsColumns) {
  for (const char *text : {"a,b,c", "a,b,c,d", "a,,b"}) {
    EXPECT_EQ(fields_in(text), std::nullopt);
    EXPECT_THAT(messages(), ElementsAre(too_many(3, 3))) << "a fourth isn't read";
    EXPECT_EQ(standin::live_count(pool::pkg), 0U);
  }
}

TEST_F(StatementScannerTest, TellsATextThatEndsBeforeTheFields) {
  for (const char *text : {"", "   "}) {
    EXPECT_EQ(fields_in(text), std::nullopt);
    EXPECT_THAT(messages(),
                ElementsAre(message{L_ERR, "End of string reached before finding fields name\n"}));
  }
}

// Columns.

TEST_F(StatementScannerTest, FindsTheColumnsOfNames) {
  EXPECT_EQ(columns_of({"c", "a", "c"}), std::vector<int32_t>({2, 0, 2}));
  EXPECT_EQ(columns_of({}), std::vector<int32_t>());
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StatementScannerTest, TellsTheFirstNameThatIsNoColumns) {
  EXPECT_EQ(columns_of({"a", "d", "e"}), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(no_field("d")));
  EXPECT_EQ(columns_of({"A"}), std::nullopt);
  EXPECT_EQ(columns_of({""}), std::nullopt);
  EXPECT_EQ(columns_of({"ab"}), std::nullopt);
  EXPECT_EQ(standin::live_count(pool::pkg), 0U);
}

TEST_F(StatementScannerTest, FindsTheFirstOfTwoColumnsOfOneName) {
  table = add_table("twins", {"x", "y", "y"});
  EXPECT_EQ(columns_of({"y"}), std::vector<int32_t>({1}));
}

// Values of an insert.

TEST_F(StatementScannerTest, PutsValuesIntoTheirColumns) {
  const std::string longest_of_a_slot(255, 'x');
  const std::string longer(256, 'y');
  const std::string longest(4000, 'z');
  const struct {
    std::string text;
    std::vector<int32_t> positions;
    names expected;
  } lists[] = {
      {"1,2", {2, 0}, {"2", "", "1"}},
      {"1 2", {1}, {"", "1", ""}},
      {"'',*", {0, 1}, {"''", "*", ""}},
      {"x\\,y|z", {0, 1}, {"x\\", "y|z", ""}},
      // A comma ahead of a value is stepped over.
      {"1,,", {0, 1}, {"1", "", ""}},
      {"1,", {0, 1}, {"1", "", ""}},
      {",1,2", {0, 1}, {"1", "2", ""}},
      {",,", {0, 1}, {"", "", ""}},
      // Values beyond the names are ignored.
      {"1,2,3,4", {0, 1}, {"1", "2", ""}},
      // Of a column named twice the later one counts.
      {"1,2", {0, 0}, {"2", "", ""}},
      {longer + ",2", {0, 0}, {"2", "", ""}},
      {"2," + longer, {0, 0}, {longer, "", ""}},
      {longer + "," + longest, {0, 0}, {longest, "", ""}},
      // Values of any length are read whole.
      {longest_of_a_slot + "," + longer, {1, 0}, {longer, longest_of_a_slot, ""}},
      {longer + "," + longest_of_a_slot, {1, 0}, {longest_of_a_slot, longer, ""}},
      {longest + "," + longer, {1, 2}, {"", longest, longer}},
  };
  for (const auto &[text, positions, expected] : lists) {
    EXPECT_EQ(values_in(text, positions), expected) << text;
    EXPECT_THAT(messages(), IsEmpty());
  }
}

TEST_F(StatementScannerTest, TellsTooFewValues) {
  const std::vector<std::pair<std::string, int>> lists = {
      {"1", 1}, {"1 2", 1}, {",", 1}, {"", 0}, {" 1,2", 0}};  // the list has to begin there
  for (const auto &[text, values] : lists) {
    EXPECT_EQ(values_in(text, {0, 1}), std::nullopt) << text;
    EXPECT_THAT(messages(), ElementsAre(too_few(values, 2))) << text;
    EXPECT_EQ(standin::live_count(pool::pkg), 0U);
  }
}

TEST_F(StatementScannerTest, LeavesRoomForAnIndexInEveryColumn) {
  const statement_text text("1," + std::string(300, 'x'));
  const int32_t positions[] = {1, 2};
  const pkg_owner<char *> list(generate_value_list(text.get(), table, positions, 2));
  ASSERT_TRUE(static_cast<bool>(list));
  memset(list[0], 'i', 255);
  list[0][255] = '\0';
  EXPECT_STREQ(list[1], "1");
  EXPECT_EQ(std::string(list[2]), std::string(300, 'x'));
  standin::check_blocks();
  EXPECT_THAT(standin::memory_errors(), IsEmpty());
}

// Pair-lists.

TEST_F(StatementScannerTest, ReadsPairsIntoColumnsAndLeavesTheOthersNull) {
  const std::vector<std::pair<std::string, field_values>> lists = {
      {"a=1", {"1", {}, {}}},
      {"c=3,a=1 rest", {"1", {}, "3"}},
      {"a=1,b=2,c=3", {"1", "2", "3"}},  // all columns may be named
      {"a=x=y,b=*", {"x=y", "*", {}}},
      {"a=x'y''", {"x'y''", {}, {}}},
      // An empty value in three ways; two quotes need no comma behind them.
      {"a='',b=2", {"", "2", {}}},
      {"a=,b=2", {"", "2", {}}},
      {"b=2,a=", {"", "2", {}}},
      {"b=2,a=''", {"", "2", {}}},
      {"a=''b=2", {"", "2", {}}},
      // The later pair of a column counts, and no more pairs are read than there are columns.
      {"a=1,a=2", {"2", {}, {}}},
      {"a=1,a=''", {"", {}, {}}},
      {"a=1,b=2,c=3,d=4", {"1", "2", "3"}},
      {"a=1,a=2,a=3,a='broken", {"3", {}, {}}},
      // Whatever ends a name is stepped over: a blank in place of the sign.
      {"a 1", {"1", {}, {}}},
      {"a 1,b 2", {"1", "2", {}}},
      {"a ", {"", {}, {}}},
      // A name that ends the text ends the list.
      {"a", {"", {}, {}}},
      {"b=2,a", {"", "2", {}}},
      {"", {{}, {}, {}}},
      {" a=1", {{}, {}, {}}},
  };
  for (const auto &[text, expected] : lists) {
    EXPECT_EQ(pairs_in(text), expected) << text;
    EXPECT_THAT(messages(), IsEmpty());
  }
}

TEST_F(StatementScannerTest, TellsAnyOtherQuote) {
  for (const char *text : {"a='x'", "a='", "a=' '", "b=1,a='x", "a='\t'"}) {
    EXPECT_EQ(pairs_in(text), std::nullopt) << text;
    EXPECT_THAT(messages(), ElementsAre(BAD_QUOTE)) << text;
    EXPECT_EQ(standin::live_count(pool::pkg), 0U);
  }
}

TEST_F(StatementScannerTest, TellsANameThatIsNoColumns) {
  const std::string long_name(3000, 'n');
  const std::vector<std::pair<std::string, std::string>> lists = {
      {"d=1", "d"},
      {"=1", ""},
      {"A=1", "A"},
      {"a=1,d=2", "d"},
      {"a=1,=2", ""},
      {"a=1,", ""},
      {"a=1,,b=2", ",b"},
      {"a=''b=2x,z=", "z"},
      {"a=1," + long_name + "=2", long_name},
      {long_name, long_name},
      // Behind blanks; what a value has no room for is a name.
      {"a " + long_name + ",b " + long_name, std::string(3000 - 256, 'n') + ",b"},
  };
  for (const auto &[text, name] : lists) {
    EXPECT_EQ(pairs_in(text), std::nullopt) << text;
    EXPECT_THAT(messages(), ElementsAre(no_field(name), NO_FIELD_POS)) << text;
    EXPECT_EQ(standin::live_count(pool::pkg), 0U);
  }
}

// The slots of the values stand 32 bytes apart.

TEST_F(StatementScannerTest, KeepsAValueOf31CharactersApartFromTheNext) {
  const std::string fits(31, 'x');
  EXPECT_EQ(pairs_in("a=" + fits + ",b=y"), field_values({fits, "y", {}}));
}

TEST_F(StatementScannerTest, LosesTheTailOfALongerValueToTheNextPairsOfTheText) {
  const std::string slot(32, 'x');
  const std::string next(32, 'y');
  const std::vector<std::pair<std::string, field_values>> lists = {
      {"a=" + slot + ",b=y", {slot + "y", "y", {}}},
      {"a=" + slot + "tail,b=y", {slot + "y", "y", {}}},
      {"a=" + slot + "tail,b=''", {slot, "", {}}},
      {"a=" + slot + "tail,b=", {slot, "", {}}},
      // In the order of the text and not of the columns.
      {"c=" + slot + "tail,a=y", {"y", {}, slot + "y"}},
      {"a=y,c=" + slot + "tail", {"y", {}, slot + "tail"}},
      // To the next but one, and through the whole of a long next one.
      {"a=" + slot + slot + slot + ",b=" + next + "z,c=w", {slot + next + "w", next + "w", "w"}},
      {"a=" + slot + slot + ",b=" + next + next, {slot + next + next, next + next, {}}},
  };
  for (const auto &[text, expected] : lists) EXPECT_EQ(pairs_in(text), expected) << text;
}

TEST_F(StatementScannerTest, ReadsNoMoreThan256CharactersOfAValueAndTheRestAsTheNextPair) {
  const std::string most(256, 'x');
  EXPECT_EQ(pairs_in("a=1,b=2,c=" + most), field_values({"1", "2", most}));
  EXPECT_EQ(pairs_in("a=1,b=2,c=" + most + "rest"), field_values({"1", "2", most}));
  EXPECT_EQ(pairs_in("a=" + most + "b=y"), field_values({std::string(32, 'x') + "y", "y", {}}));
  EXPECT_EQ(pairs_in("a=" + most + "rest"), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(no_field("rest"), NO_FIELD_POS));
}

// Memory.

TEST_F(StatementScannerTest, TellsWhichBlockItCouldNotHave) {
  const auto expect_told = [](bool failed, std::vector<message> told) {
    EXPECT_TRUE(failed);
    EXPECT_EQ(messages(), told);
    EXPECT_EQ(standin::live_count(pool::pkg), 0U);
  };
  const auto without = [](size_t n) { standin::fail_at(pool::pkg, n); };
  without(1);
  expect_told(!name_in("t"), {no_memory("tbl_name")});
  without(1);
  expect_told(!fields_in("a"), {no_memory("field_list")});
  without(1);
  expect_told(!columns_of({"a"}), {no_memory("field_pos")});
  without(1);
  expect_told(!values_in("1", {0}), {no_memory("field_value")});
  without(1);
  expect_told(!pairs_in("a=1"), {no_memory("field_list")});
  without(2);
  expect_told(!pairs_in("a=1"), {no_memory("field_value_f")});
  without(3);
  expect_told(!pairs_in("a=1"), {no_memory("field_value")});
  without(4);
  expect_told(!pairs_in("a=1"), {no_memory("field_pos"), NO_FIELD_POS});
}

// Random texts beside a model of the pair-list.

// The slots as they are on paper: 32 bytes apart, each text written over what stood there.
std::optional<field_values> pairs_by_model(const std::string &text,
                                           const std::vector<std::string> &columns) {
  std::string slots(columns.size() * 32 + 300, '\0');
  std::vector<std::string> found;
  const auto look = [&text](size_t i) { return i < text.size() ? text[i] : '\0'; };
  const auto ends = [](char c) { return c == '\0' || c == ' '; };
  size_t i = 0;
  while (!ends(look(i)) && found.size() < columns.size()) {
    if (look(i) == ',') i++;
    std::string name;
    while (!ends(look(i)) && look(i) != '=') name += look(i++);
    if (look(i) != '\0') i++;
    std::string content;
    if (look(i) == '\'') {
      if (look(i + 1) != '\'') return std::nullopt;
      i += 2;
    } else {
      while (!ends(look(i)) && look(i) != ',' && content.size() < 256) content += look(i++);
    }
    content += '\0';
    slots.replace(found.size() * 32, content.size(), content);
    found.push_back(name);
  }
  field_values out(columns.size());
  for (size_t n = 0; n < found.size(); n++) {
    const auto column = std::find(columns.begin(), columns.end(), found[n]);
    if (column == columns.end()) return std::nullopt;
    out[static_cast<size_t>(column - columns.begin())] = slots.c_str() + n * 32;
  }
  return out;
}

TEST_F(StatementScannerTest, ReadsRandomPairListsAsAModelDoes) {
  static const char *const pieces[] = {"a",  "b", "c", "=", "=",  "=",          ",",  ",",
                                       "''", "'", " ", "d", "12", "0123456789", "xy", "\xFF"};
  size_t good = 0;
  for (uint32_t seed = 0; seed < 20000; seed++) {
    std::mt19937 random(seed);
    std::string text;
    for (size_t n = random() % 24; n > 0; n--) {
      const std::string piece = pieces[random() % std::size(pieces)];
      for (size_t times = random() % 12 == 0 ? random() % 40 : 1; times > 0; times--) text += piece;
    }
    const auto expected = pairs_by_model(text, {"a", "b", "c"});
    good += expected ? 1U : 0U;
    ASSERT_EQ(pairs_in(text), expected) << "seed " << seed << ": " << text;
  }
  EXPECT_GT(good, 500U) << "lists that are taken belong to the sample";
}

TEST_F(StatementScannerTest, ReadsRandomListsAsAModelDoes) {
  for (uint32_t seed = 0; seed < 20000; seed++) {
    std::mt19937 random(seed);
    std::string text;
    for (size_t n = 1 + random() % 12; n > 0; n--) text += "ab,, x'"[random() % 7];
    // The list as the words between its commas, a first comma opening the first word.
    std::string list = text.substr(0, text.find(' '));
    const bool blank_ahead = text[0] == ' ';
    if (!list.empty() && list[0] == ',') list.erase(0, 1);
    names words(1);
    for (const char c : list) {
      if (c == ',')
        words.emplace_back();
      else
        words.back() += c;
    }
    if (blank_ahead) continue;
    const auto fields = fields_in(text);
    ASSERT_EQ(fields.has_value(), words.size() < 3) << text;
    if (fields) {
      ASSERT_EQ(*fields, words) << text;
    }
    const auto values = values_in(text, {1, 0});
    ASSERT_EQ(values.has_value(), words.size() >= 2) << text;
    if (values) {
      ASSERT_EQ(*values, names({words[1], words[0], ""})) << text;
    }
  }
}

}  // namespace
