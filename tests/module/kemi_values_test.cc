// Values in calls from other script languages: what goes in comes out, also after a restart, or is
// refused; and the two functions that give a text.
#include "tests/module/kemi_fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const table USERS = {"users", {{"name", 31, true}, {"age", 31, true}, {"city"}}, 5000};
constexpr size_t COLUMNS = 3;

class KemiValuesTest : public KemiTest {
 protected:
  std::string escaped(const std::string &text) { return kemi_text("escape", {text}); }

  std::string list(const row &fields) {
    texts out;
    for (const std::string &field : fields) out.push_back(quickly_escaped(field));
    return joined(out, "|");
  }

  // Calls without a look at what they leave, for long runs.
  int quickly(const std::string &function, const values &given) {
    return standin::kemi_call(*standin::kemi_find(function), given, &msg).number;
  }
  std::string quickly_escaped(const std::string &text) {
    return standin::kemi_call(*standin::kemi_find("escape"), {text}, &msg).text;
  }

  int insert(const row &fields) { return kemi("insert", {"users," + list(fields)}); }

  // All rows, oldest first, as a select gives them.
  row_list all_rows() {
    standin::clear_avps();
    quickly("select", {"users,*|*|*", "$avp(c0)|$avp(c1)|$avp(c2)"});
    row_list out;
    for (size_t i = 0; i < COLUMNS; i++) {
      const texts fields = avp_texts("c" + std::to_string(i));
      out.resize(fields.size());
      for (size_t r = 0; r < fields.size(); r++) out[r].push_back(fields[r]);
    }
    standin::clear_avps();
    return out;
  }

  // A row for each byte, and place of it in a text, in the column; alone, first, middle, last.
  static row_list rows_of_bytes(size_t column) {
    row_list out;
    for (int byte = 0; byte < 256; byte++) {
      const std::string character(1, static_cast<char>(byte));
      for (const std::string &text :
           {character, character + "yz", "x" + character + "z", "xy" + character}) {
        row fields(COLUMNS);
        fields[column] = text;
        // Each row has a text that is its own.
        fields[column == 0 ? 1 : 0] = std::to_string(byte) + "." + std::to_string(out.size());
        out.push_back(fields);
      }
    }
    return out;
  }

  // What a file can't carry, as told in the guide.
  static bool is_carried(const row &fields) {
    for (const std::string &text : fields)
      if (text == "*" || text.find_first_of(std::string("|\\\n\0", 4)) != std::string::npos)
        return false;
    return fields[0].empty() || fields[0][0] != '#';
  }

  row_list rows_after_restart() {
    forget_view();
    unload();
    standin::forget_kemi();
    load();
    start({USERS});
    return all_rows();
  }
};

class KemiEveryByteTest : public KemiValuesTest, public testing::WithParamInterface<size_t> {};

INSTANTIATE_TEST_SUITE_P(Columns, KemiEveryByteTest, testing::Values(0, 1, 2));

TEST_P(KemiEveryByteTest, OfAnInsertIsRefusedOrComesBackAfterARestart) {
  start({USERS});
  const quiet silence;
  row_list kept;
  for (const row &fields : rows_of_bytes(GetParam())) {
    const int result = quickly("insert", {"users," + list(fields)});
    EXPECT_EQ(result, is_carried(fields) ? 1 : -1) << testing::PrintToString(fields);
    if (result == 1) kept.push_back(fields);
  }
  EXPECT_EQ(all_rows(), kept);
  EXPECT_EQ(rows_after_restart(), kept);
}

TEST_P(KemiEveryByteTest, OfAnUpdateIsRefusedOrComesBackAfterARestart) {
  start({USERS});
  const quiet silence;
  row_list kept;
  const size_t key = GetParam() == 0 ? 1 : 0;
  for (const row &fields : rows_of_bytes(GetParam())) {
    row old_fields = fields;
    old_fields[GetParam()] = "old";
    ASSERT_EQ(quickly("insert", {"users," + list(old_fields)}), 1);
    texts query(COLUMNS, "*");
    query[key] = fields[key];
    texts given(COLUMNS, "*");
    given[GetParam()] = quickly_escaped(fields[GetParam()]);
    const int result = quickly("update", {"users," + joined(query, "|"), joined(given, "|")});
    EXPECT_EQ(result, is_carried(fields) ? 1 : -1) << testing::PrintToString(fields);
    kept.push_back(result == 1 ? fields : old_fields);
  }
  EXPECT_EQ(all_rows(), kept);
  EXPECT_EQ(rows_after_restart(), kept);
}

TEST_F(KemiValuesTest, ARefusalTellsTheColumnAndTheReason) {
  start({USERS});
  const std::vector<std::pair<row, std::string>> refusals = {
      {{"a", "b\nc", ""}, "'age' of table 'users' has a line end, which its file can't carry\n"},
      {{"a|b", "", ""}, "'name' of table 'users' has a bar, which its file can't carry\n"},
      {{"a", "", "\\"}, "'city' of table 'users' has a backslash, which its file can't carry\n"},
      {{"*", "", ""}, "'name' of table 'users' is a star, which its file can't carry\n"},
      {{"#a", "", ""}, "'name' of table 'users' begins with #, as comments do in its file\n"},
      {{"a", std::string(32, 'x'), ""}, "'age' of table 'users' is longer than the column\n"}};
  for (const auto &[fields, reason] : refusals) {
    standin::clear_logs();
    EXPECT_EQ(insert(fields), -1);
    EXPECT_THAT(messages(INFO_LEVEL),
                ElementsAre(err("A value for column " + reason), err("INSERT failed!\n")));
  }
  EXPECT_THAT(rows("users"), IsEmpty());
  EXPECT_EQ(insert({"a#", std::string(31, 'x'), "#**"}), 1);
}

TEST_F(KemiValuesTest, AnUpdateThatIsRefusedChangesNothing) {
  start_filled(USERS, {"alice|30|rome"});
  EXPECT_EQ(kemi("update", {"users,alice|*|*", "bob|\\|*"}), -1);
  standin::clear_logs();
  EXPECT_EQ(kemi("update", {"users,alice|*|*", "bob|*|\\*"}), -1);
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(err("A value for column 'city' of table 'users' is a star, which its file "
                      "can't carry\n"),
                  err("UPDATE failed!\n")));
  expect_rows("users", {{"alice", "30", "rome"}});
}

TEST_F(KemiValuesTest, TheTextAheadOfADrawnIndexIsDroppedWhateverItIs) {
  start({{"users", {{"name"}, {"age"}}, 100, "", true}});
  EXPECT_EQ(kemi("insert", {"users,#\\|" + std::string(40, 'x') + "|a"}), 1);
  EXPECT_EQ(kemi("insert", {"users,|\\|"}), -1);
  expect_rows("users", {{"1", "a"}});
}

// In a table of one column a value may look like a named list, to the native script.
TEST_F(KemiValuesTest, ListsAreByPosition) {
  start_filled({"t", {{"a"}}}, {"x", "a=x"});
  EXPECT_EQ(kemi("delete", {"t,a=x"}), 1);
  expect_rows("t", {{"x"}});
  EXPECT_EQ(kemi("update", {"t,x", "a=y"}), 1);
  expect_rows("t", {{"a=y"}});
  EXPECT_EQ(kemi_text("get", {"t,a=y", 0}), "a=y");
}

// Escape.

TEST_F(KemiValuesTest, EscapePutsABackslashAheadOfWhatAQueryGoesBy) {
  start({USERS});
  EXPECT_EQ(escaped("plain"), "plain");
  EXPECT_EQ(escaped("a,b|c\\d*e"), "a\\,b\\|c\\\\d\\*e");
  EXPECT_EQ(escaped("$avp(a)$$"), "$avp(a)$$");
  EXPECT_EQ(escaped(""), "");
  EXPECT_EQ(kemi_text("escape", {no_text()}), "");
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(KemiValuesTest, EscapeLetsAZeroByteThroughAndTheQueryIsRefused) {
  start_filled(USERS, {"a|30|rome"});
  const std::string text = escaped(std::string("a\0b", 3));
  EXPECT_EQ(text, std::string("a\\\0b", 4));
  EXPECT_EQ(kemi("delete", {"users," + text + "|*|*"}), -1);
  EXPECT_THAT(messages(), ElementsAre(err("Parameter 1 has a zero byte in it\n")));
  expect_rows("users", {{"a", "30", "rome"}});
}

TEST_F(KemiValuesTest, EscapeGivesNullForWhatNoQueryHasRoomFor) {
  start({USERS});
  EXPECT_EQ(escaped(std::string(4095, 'x')), std::string(4095, 'x'));
  EXPECT_EQ(escaped(std::string(2047, '*')).size(), 4094u);
  EXPECT_THAT(messages(), IsEmpty());
  EXPECT_EQ(escaped(std::string(4096, 'x')), "<null>");
  EXPECT_EQ(escaped(std::string(2048, '*')), "<null>");
  EXPECT_THAT(messages(),
              ElementsAre(err("4096 bytes come to 4096, for which no query has room\n"),
                          err("2048 bytes come to 4096, for which no query has room\n")));
}

// Get.

TEST_F(KemiValuesTest, GetGivesTheColumnOfTheNewestRowThatMatches) {
  start_filled(USERS, {"alice|30|rome", "alice||oslo"});
  EXPECT_EQ(kemi_text("get", {"users,alice|*|*", 2}), "oslo");
  EXPECT_EQ(kemi_text("get", {"users,alice|*|*", 1}), "");
  EXPECT_EQ(kemi_text("get", {"users,*|30|*", 0}), "alice");
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(KemiValuesTest, GetGivesNullWithoutARow) {
  start_filled(USERS, {"alice|30|rome"});
  EXPECT_EQ(kemi_text("get", {"users,bob|*|*", 2}), "<null>");
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(KemiValuesTest, GetGivesNullForAQueryOrAColumnThatIsNone) {
  start_filled(USERS, {"alice|30|rome"});
  for (const int column : {-1, 3, 1000000}) {
    standin::clear_logs();
    EXPECT_EQ(kemi_text("get", {"users,*|*|*", column}), "<null>");
    EXPECT_THAT(messages(INFO_LEVEL),
                ElementsAre(err("Table 'users' has no column " + std::to_string(column) +
                                ": it has 3, from 0 on\n")));
  }
  standin::clear_logs();
  EXPECT_EQ(kemi_text("get", {"nowhere,*", 0}), "<null>");
  EXPECT_THAT(messages(INFO_LEVEL), testing::Contains(err("SELECT failed!\n")));
  EXPECT_THAT(view().held_locks(), IsEmpty());
}

TEST_F(KemiValuesTest, GetGivesAValueOfAnyLengthWhole) {
  const std::string longer(10000, 'l'), longest(100000, 'm');
  start_filled({"t", {{"key"}, {"a", 200000}}}, {"1|" + longer, "2|" + longest, "3|short"});
  for (int turn = 0; turn < 3; turn++) {
    EXPECT_EQ(kemi_text("get", {"t,1|*", 1}), longer);
    EXPECT_EQ(kemi_text("get", {"t,2|*", 1}), longest);
    EXPECT_EQ(kemi_text("get", {"t,3|*", 1}), "short");
  }
}

TEST_F(KemiValuesTest, GetTakesPrivateMemoryForWhatTheBufferHasNoRoomFor) {
  const std::string fits(4095, 'f'), longer(4096, 'l');
  start_filled({"t", {{"key"}, {"a", 5000}}}, {"1|" + fits, "2|" + longer});
  const size_t before = module_blocks(pool::pkg);
  EXPECT_EQ(kemi_text("get", {"t,1|*", 1}), fits);
  EXPECT_EQ(module_blocks(pool::pkg), before);
  for (int turn = 0; turn < 2; turn++) {
    EXPECT_EQ(kemi_text("get", {"t,2|*", 1}), longer);
    EXPECT_EQ(module_blocks(pool::pkg), before + 1);
  }
}

TEST_F(KemiValuesTest, GetGivesNullWhereMemoryIsShortForALongValue) {
  start_filled({"t", {{"key"}, {"a", 200000}}}, {"1|" + std::string(10000, 'l')});
  standin::fail_at(pool::pkg, 2);
  EXPECT_EQ(kemi_text("get", {"t,1|*", 1}), "<null>");
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("No more memory for a value of 10001 bytes\n")));
  EXPECT_THAT(view().held_locks(), IsEmpty());
}

}  // namespace
}  // namespace module_test
