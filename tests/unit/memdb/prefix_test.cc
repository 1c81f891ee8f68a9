// When there is a look-up for prefixes, what it takes, and what it leaves to a walk of the rows.
#include <unordered_map>

#include "memdb/prefix/hash.h"
#include "tests/unit/memdb/prefix_fixture.h"

namespace engine_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const texts LEFT_TO_A_WALK = {"left to a walk"};
constexpr uint32_t GROUP = 0;
constexpr uint32_t PREFIX = 1;
constexpr uint32_t GROUP_GIVEN = 1U << GROUP;

class PrefixLookUpTest : public PrefixTest {
 protected:
  // Columns of a group, a prefix, and a name.
  memdb_tbl *make_routes(uint32_t group_flag = PLAIN, uint32_t prefix_len = 15) {
    memdb_tbl *const table = make({{7, group_flag}, {prefix_len, PLAIN}, {7, PLAIN}});
    memdb_want_prefixes(table, PREFIX, GROUP_GIVEN);
    return table;
  }

  static texts route(const memdb_tbl *table, const char *group, const char *key,
                     int32_t most = INT32_MAX) {
    return answer(table, PREFIX, key, {group, ANY, ANY}, most);
  }

  static bool is_known(const memdb_tbl *table) { return route(table, "g", "9") != LEFT_TO_A_WALK; }

  // So many rows of different prefixes, none of which begins with a 4.
  static void insert_many(memdb_tbl *table, size_t count, size_t from = 0) {
    for (size_t i = from; i < from + count; i++)
      insert(table, {"g", ("9" + std::to_string(i)).c_str(), "many"});
  }

  // Until a row takes another block beside its own, the first one's apart. The number of rows.
  uint32_t insert_until_it_grows(memdb_tbl *table) const {
    insert_many(table, 1);
    for (;;) {
      const int before = seen_.allocations;
      insert_many(table, 1);
      if (seen_.allocations > before + 1) return table->row_cnt;
    }
  }

  static void delete_oldest(memdb_tbl *table, size_t count) {
    for (; count > 0; count--) memdb_delete_row(table, table->last);
  }

  // Bytes in blocks that aren't rows, less those of the empty table.
  size_t extra_bytes(const memdb_tbl *table, size_t of_empty) const {
    size_t bytes = 0;
    for (const auto &[block, size] : seen_.live) bytes += size;
    return bytes - of_empty - table->row_cnt * (sizeof(memdb_row) + table->row_len);
  }
};

TEST_F(PrefixLookUpTest, FindsTheLongestEntryOfTheGroup) {
  memdb_tbl *const table = make_routes();
  for (const char *entry : {"", "4", "4930", "49", "5"}) insert(table, {"g", entry, "a"});
  insert(table, {"h", "493", "b"});
  EXPECT_THAT(route(table, "g", "49301"), ElementsAre("g|4930|a"));
  EXPECT_THAT(route(table, "g", "4930"), ElementsAre("g|4930|a"));
  EXPECT_THAT(route(table, "g", "493"), ElementsAre("g|49|a"));
  EXPECT_THAT(route(table, "h", "49301"), ElementsAre("h|493|b"));
  EXPECT_THAT(route(table, "h", "5"), IsEmpty());
  EXPECT_THAT(route(table, "i", "49301"), IsEmpty());
}

TEST_F(PrefixLookUpTest, TakesEntriesOfNoCharactersForTheDefault) {
  memdb_tbl *const table = make_routes();
  insert(table, {"g", "", "old"});
  insert(table, {"g", "", "new"});
  insert(table, {"g", "1", "a"});
  EXPECT_THAT(route(table, "g", "2"), ElementsAre("g||new", "g||old"));
}

TEST_F(PrefixLookUpTest, GivesEqualEntriesNewestFirst) {
  memdb_tbl *const table = make_routes();
  for (const char *name : {"a", "b", "c"}) insert(table, {"g", "49", name});
  EXPECT_THAT(route(table, "g", "49"), ElementsAre("g|49|c", "g|49|b", "g|49|a"));
  memdb_delete_row(table, table->first->next);
  insert(table, {"g", "49", "d"});
  EXPECT_THAT(route(table, "g", "49"), ElementsAre("g|49|d", "g|49|c", "g|49|a"));
}

TEST_F(PrefixLookUpTest, KeepsTheAgeOfARowWhoseTextsAreOverwritten) {
  memdb_tbl *const table = make_routes();
  memdb_row *const oldest = insert(table, {"h", "49", "a"});
  memdb_row *const middle = insert(table, {"g", "5", "b"});
  insert(table, {"g", "49", "c"});
  memdb_set_field(table, middle, PREFIX, "49");
  memdb_set_field(table, oldest, GROUP, "g");
  EXPECT_THAT(route(table, "g", "49"), ElementsAre("g|49|c", "g|49|b", "g|49|a"));
  EXPECT_THAT(route(table, "g", "5"), IsEmpty());
  EXPECT_THAT(route(table, "h", "49"), IsEmpty());
}

TEST_F(PrefixLookUpTest, GoesByTextsAsTheyWereCut) {
  memdb_tbl *const table = make_routes(PLAIN, 3);
  memdb_row *const row = insert(table, {"group name", "12345", "a"});
  EXPECT_THAT(route(table, "group n", "1234"), ElementsAre("group n|123|a"));
  EXPECT_THAT(route(table, "group name", "1234"), IsEmpty()) << "no row has that text";
  memdb_set_field(table, row, PREFIX, "98765");
  EXPECT_THAT(route(table, "group n", "9876"), ElementsAre("group n|987|a"));
}

// Two numbers whose rows have one hash: as groups of the default entry, or as entries of group g.
std::pair<std::string, std::string> numbers_of_one_hash(bool as_groups) {
  std::unordered_map<uint32_t, std::string> by_hash;
  for (int number = 100000;; number++) {
    std::string text = std::to_string(number);
    const char *const group = as_groups ? text.c_str() : "g";
    uint64_t hash =
        memdb_prefix_hash_given(GROUP_GIVEN, [group](uint32_t) { return std::string_view(group); });
    if (!as_groups)
      for (const char c : text) hash = memdb_prefix_hash_char(hash, c);
    const auto [place, is_new] = by_hash.emplace(memdb_prefix_hash_end(hash), text);
    if (!is_new) return {place->second, text};
  }
}

TEST_F(PrefixLookUpTest, TellsTextsOfOneHashApart) {
  memdb_tbl *const table = make_routes();
  const auto [entry, other_entry] = numbers_of_one_hash(false);
  insert(table, {"g", entry.c_str(), "a"});
  EXPECT_THAT(route(table, "g", entry.c_str()), ElementsAre("g|" + entry + "|a"));
  EXPECT_THAT(route(table, "g", other_entry.c_str()), IsEmpty());
  insert(table, {"g", other_entry.c_str(), "b"});
  EXPECT_THAT(route(table, "g", entry.c_str()), ElementsAre("g|" + entry + "|a"));
  EXPECT_THAT(route(table, "g", other_entry.c_str()), ElementsAre("g|" + other_entry + "|b"));

  const auto [group, other_group] = numbers_of_one_hash(true);
  insert(table, {group.c_str(), "", "c"});
  EXPECT_THAT(route(table, group.c_str(), "9"), ElementsAre(group + "||c"));
  EXPECT_THAT(route(table, other_group.c_str(), "9"), IsEmpty());
}

TEST_F(PrefixLookUpTest, IsOfOneFormOfSearches) {
  memdb_tbl *const table = make_routes();
  insert(table, {"g", "49", "a"});
  EXPECT_EQ(answer(table, PREFIX, "49", {ANY, ANY, ANY}), LEFT_TO_A_WALK);
  EXPECT_EQ(answer(table, PREFIX, "49", {"g", ANY, "a"}), LEFT_TO_A_WALK);
  EXPECT_EQ(answer(table, 2, "49", {"g", ANY, ANY}), LEFT_TO_A_WALK);
  memdb_want_prefixes(table, 2, GROUP_GIVEN);
  EXPECT_THAT(answer(table, 2, "ab", {"g", ANY, ANY}), ElementsAre("g|49|a"));
}

TEST_F(PrefixLookUpTest, IsMadeForSoManyFormsAndNoMore) {
  memdb_tbl *const table = make({{7, PLAIN}, {7, PLAIN}, {7, PLAIN}, {7, PLAIN}, {7, PLAIN}});
  for (uint32_t main = 0; main < 5; main++)
    for (int twice = 0; twice < 2; twice++) memdb_want_prefixes(table, main, 0);
  insert(table, {"1", "1", "1", "1", "1"});
  const values nothing(5, ANY);
  for (uint32_t main = 0; main < 4; main++)
    EXPECT_THAT(answer(table, main, "1", nothing), ElementsAre("1|1|1|1|1"));
  EXPECT_EQ(answer(table, 4, "1", nothing), LEFT_TO_A_WALK);
}

TEST_F(PrefixLookUpTest, IsNotMadeForColumnsThatCannotBeSearched) {
  memdb_tbl *const table = make({{7, INDEXED}, {7, PLAIN}});
  memdb_want_prefixes(table, 0, 0);
  memdb_want_prefixes(table, 2, 0);
  memdb_want_prefixes(table, 1, 1U << 2);
  EXPECT_EQ(table->prefixes[0].main, MEMDB_NO_COL);

  const std::vector<tbl_dcl> columns(33, {3, PLAIN});
  memdb_tbl *const wide = memdb_create_tbl(columns.data(), 33);
  memdb_want_prefixes(wide, 1, 1);
  EXPECT_EQ(wide->prefixes[0].main, MEMDB_NO_COL);
  memdb_destroy_tbl(wide);
}

// What a table says that a search lacks.

std::optional<uint32_t> lacking(const memdb_tbl *table, uint32_t main, const values &given,
                                int32_t most = INT32_MAX) {
  uint32_t out = 0;
  const bool lacks = memdb_lacks_prefixes(table, {main, "", given.data(), most}, &out);
  return lacks ? std::optional(out) : std::nullopt;
}

TEST_F(PrefixLookUpTest, IsLackingUntilItIsAskedFor) {
  memdb_tbl *const table = make({{7, PLAIN}, {15, PLAIN}, {7, PLAIN}});
  insert(table, {"g", "49", "a"});
  EXPECT_EQ(lacking(table, PREFIX, {"g", "49", ANY}), GROUP_GIVEN);
  EXPECT_EQ(lacking(table, PREFIX, {"g", ANY, "a"}), GROUP_GIVEN | 4U);
  memdb_want_prefixes(table, PREFIX, GROUP_GIVEN);
  EXPECT_EQ(lacking(table, PREFIX, {"g", "49", ANY}), std::nullopt);
  EXPECT_EQ(lacking(table, PREFIX, {ANY, "49", ANY}), 0U);
  EXPECT_EQ(lacking(table, 2, {"g", ANY, ANY}), GROUP_GIVEN);
}

TEST_F(PrefixLookUpTest, IsNotLackingWhereItWouldntAnswerOrCantBeHad) {
  memdb_tbl *const table = make({{7, INDEXED}, {7, PLAIN}, {7, PLAIN}, {7, PLAIN}, {7, PLAIN}});
  const values nothing(5, ANY);
  EXPECT_EQ(lacking(table, 1, nothing), std::nullopt) << "no more rows than a walk is made for";
  insert(table, {"1", "1", "1", "1", "1"});
  insert(table, {"2", "2", "2", "2", "2"});
  EXPECT_EQ(lacking(table, 1, nothing), 0U);
  EXPECT_EQ(lacking(table, 0, nothing), std::nullopt) << "indexed";
  EXPECT_EQ(lacking(table, 5, nothing), std::nullopt) << "no column";
  EXPECT_EQ(lacking(table, UINT32_MAX, nothing), std::nullopt);
  EXPECT_EQ(lacking(table, 1, nothing, 1), std::nullopt) << "a limit below the number of rows";
  EXPECT_EQ(lacking(table, 1, nothing, -1), std::nullopt);
  EXPECT_EQ(lacking(table, 1, nothing, 2), 0U);
  for (uint32_t main = 1; main < 5; main++) memdb_want_prefixes(table, main, 0);
  EXPECT_EQ(lacking(table, 1, {"1", ANY, ANY, ANY, ANY}), std::nullopt) << "no more of them";

  const std::vector<tbl_dcl> columns(33, {3, PLAIN});
  memdb_tbl *const wide = memdb_create_tbl(columns.data(), 33);
  const std::vector<const char *> fields(33, "1");
  memdb_insert(wide, fields.data());
  EXPECT_EQ(lacking(wide, 1, values(33, ANY)), std::nullopt) << "too many columns";
  memdb_destroy_tbl(wide);
}

TEST_F(PrefixLookUpTest, CoversTheLastColumnOfAWideTable) {
  const std::vector<tbl_dcl> columns(32, {3, PLAIN});
  memdb_tbl *const wide = memdb_create_tbl(columns.data(), 32);
  memdb_want_prefixes(wide, 31, 1U << 30);
  const values row(32, "1");
  memdb_insert(wide, row.data());
  values given(32, ANY);
  given[30] = "1";
  EXPECT_EQ(look_up(wide, 31, "12", given)->size(), 1U);
  memdb_destroy_tbl(wide);
}

TEST_F(PrefixLookUpTest, ARowWithoutSomeValueIsRefusedAndTheLookUpStays) {
  memdb_tbl *const table = make_routes();
  insert(table, {"g", "49", "a"});
  EXPECT_EQ(insert(table, {ANY, "4930", "b"}), nullptr);
  EXPECT_EQ(insert(table, {"g", ANY, "b"}), nullptr);
  EXPECT_THAT(route(table, "g", "4930"), ElementsAre("g|49|a"));
}

// Size.

TEST_F(PrefixLookUpTest, TakesNothingForATableOfSixtyFourRows) {
  memdb_prefixes = as_built_;
  memdb_tbl *const table = make_routes();
  const int before = seen_.allocations;
  insert_many(table, 64);
  EXPECT_EQ(seen_.allocations - before, 64);
  EXPECT_FALSE(is_known(table));
  insert_many(table, 1);
  EXPECT_EQ(seen_.allocations - before, 65 + 2);
  EXPECT_TRUE(is_known(table));
}

TEST_F(PrefixLookUpTest, IsMadeAtOnceForATableThatIsLargeWhenItIsAskedFor) {
  memdb_tbl *const table = make({{7, PLAIN}, {15, PLAIN}, {7, PLAIN}});
  insert(table, {"g", "49", "old"});
  insert(table, {"g", "49", "new"});
  memdb_want_prefixes(table, PREFIX, GROUP_GIVEN);
  insert(table, {"g", "49", "newest"});
  EXPECT_THAT(route(table, "g", "49"), ElementsAre("g|49|newest", "g|49|new", "g|49|old"));
}

TEST_F(PrefixLookUpTest, TakesAtMost48BytesARowHoweverTheTableGrowsAndShrinks) {
  memdb_prefixes = as_built_;
  memdb_tbl *const table = make_routes();
  size_t of_empty = 0;
  for (const auto &[block, size] : seen_.live) of_empty += size;
  constexpr size_t HEAD = 400;
  const auto most = [table] { return HEAD + 48 * size_t{table->row_cnt}; };
  const auto step = [table] { return 32 + size_t{table->row_cnt} / 16; };
  while (table->row_cnt < 40000) {
    insert_many(table, step(), table->row_cnt);
    ASSERT_LE(extra_bytes(table, of_empty), most()) << table->row_cnt;
    ASSERT_EQ(is_known(table), table->row_cnt > 64);
  }
  while (table->row_cnt > 64) {
    ASSERT_LE(extra_bytes(table, of_empty), most()) << table->row_cnt;
    ASSERT_TRUE(is_known(table));
    delete_oldest(table, step());
  }
  delete_oldest(table, 32);
  EXPECT_EQ(extra_bytes(table, of_empty), 0U);
  EXPECT_FALSE(is_known(table));
}

TEST_F(PrefixLookUpTest, IsNotMadeAnewForRowsThatComeAndGo) {
  memdb_tbl *const table = make_routes();
  insert_many(table, 100);
  const int before = seen_.allocations;
  for (int i = 0; i < 10000; i++) {
    insert(table, {"g", std::to_string(i).c_str(), "x"});
    delete_oldest(table, 1);
  }
  EXPECT_LT(seen_.allocations - before, 10000 + 200);
  EXPECT_TRUE(is_known(table));
}

// Limits of a walk.

TEST_F(PrefixLookUpTest, LeavesALimitBelowTheNumberOfRowsToAWalk) {
  memdb_tbl *const table = make_routes();
  for (const char *entry : {"1", "2", "3"}) insert(table, {"g", entry, "a"});
  EXPECT_EQ(route(table, "g", "1", 2), LEFT_TO_A_WALK);
  EXPECT_EQ(route(table, "g", "1", 0), LEFT_TO_A_WALK);
  EXPECT_EQ(route(table, "g", "1", -1), LEFT_TO_A_WALK);
  EXPECT_THAT(route(table, "g", "1", 3), ElementsAre("g|1|a"));
  memdb_delete_row(table, table->first);
  EXPECT_THAT(route(table, "g", "1", 2), ElementsAre("g|1|a"));
}

TEST_F(PrefixLookUpTest, HoldsAsManyEqualEntriesAsAWalkDoesWithoutEnding) {
  memdb_tbl *const table = make_routes();
  insert(table, {"g", "4930", "long"});
  for (size_t i = 0; i < MEMDB_PREFIX_MOST_EQUAL; i++) insert(table, {"g", "49", "tie"});
  EXPECT_EQ(route(table, "g", "491").size(), MEMDB_PREFIX_MOST_EQUAL);
  EXPECT_THAT(route(table, "g", "4930"), ElementsAre("g|4930|long"));
  insert(table, {"h", "49", "other group"});
  EXPECT_TRUE(is_known(table));

  insert(table, {"g", "49", "one more"});
  EXPECT_EQ(route(table, "g", "4930"), LEFT_TO_A_WALK) << "which ends ahead of it";
  EXPECT_EQ(route(table, "h", "49"), LEFT_TO_A_WALK);
  delete_oldest(table, 100);
  EXPECT_FALSE(is_known(table)) << "it comes back with an empty or a small table";
  memdb_delete_all(table);
  insert(table, {"g", "49", "again"});
  EXPECT_THAT(route(table, "g", "49"), ElementsAre("g|49|again"));
}

TEST_F(PrefixLookUpTest, IsNotMadeForATableWithTooManyEqualEntries) {
  memdb_tbl *const table = make({{7, PLAIN}, {15, PLAIN}, {7, PLAIN}});
  for (size_t i = 0; i <= MEMDB_PREFIX_MOST_EQUAL; i++) insert(table, {"g", "49", "tie"});
  memdb_want_prefixes(table, PREFIX, GROUP_GIVEN);
  EXPECT_FALSE(is_known(table));
}

TEST_F(PrefixLookUpTest, LeavesLongKeysToAWalkWhereThereAreLongEntries) {
  memdb_tbl *const table = make_routes(PLAIN, 80);
  const std::string longest(64, '1');
  const std::string too_long(65, '1');
  insert(table, {"g", longest.c_str(), "a"});
  EXPECT_THAT(route(table, "g", (too_long + "1").c_str()), ElementsAre("g|" + longest + "|a"));
  memdb_row *const row = insert(table, {"g", too_long.c_str(), "b"});
  EXPECT_THAT(route(table, "g", longest.c_str()), ElementsAre("g|" + longest + "|a"));
  EXPECT_EQ(route(table, "g", too_long.c_str()), LEFT_TO_A_WALK);
  memdb_delete_row(table, row);
  EXPECT_THAT(route(table, "g", too_long.c_str()), ElementsAre("g|" + longest + "|a"));
}

// Order of a walk.

TEST_F(PrefixLookUpTest, LeavesAChainWithAnOverwrittenTextToAWalkUntilTheTableWasEmpty) {
  memdb_tbl *const table = make_routes(INDEXED);
  insert(table, {"g", "49", "a"});
  memdb_row *const row = insert(table, {"h", "49", "b"});
  memdb_set_field(table, row, GROUP, "h");
  EXPECT_THAT(route(table, "h", "49"), ElementsAre("h|49|b")) << "with the text that it had";
  memdb_set_field(table, row, GROUP, "g");
  EXPECT_FALSE(is_known(table));
  insert(table, {"g", "5", "c"});
  EXPECT_FALSE(is_known(table));
  delete_oldest(table, 3);
  insert(table, {"g", "5", "d"});
  EXPECT_THAT(route(table, "g", "5"), ElementsAre("g|5|d"));
}

TEST_F(PrefixLookUpTest, LeavesAChainToAWalkThoughItsTextWasOverwrittenEarlier) {
  memdb_tbl *const table = make({{7, INDEXED}, {15, PLAIN}, {7, PLAIN}});
  memdb_set_field(table, insert(table, {"h", "49", "a"}), GROUP, "g");
  memdb_want_prefixes(table, PREFIX, GROUP_GIVEN);
  insert(table, {"g", "49", "b"});
  EXPECT_FALSE(is_known(table));
  memdb_delete_all(table);
  insert(table, {"g", "49", "c"});
  EXPECT_TRUE(is_known(table));
}

TEST_F(PrefixLookUpTest, MindsOverwrittenTextsOfNoIndexButTheOneThatLeads) {
  memdb_tbl *const table = make({{7, INDEXED}, {7, INDEXED}, {7, PLAIN}});
  memdb_want_prefixes(table, 2, 3);
  memdb_row *const row = insert(table, {"g", "x", "49"});
  memdb_set_field(table, row, 1, "y");
  EXPECT_THAT(answer(table, 2, "49", {"g", "y", ANY}), ElementsAre("g|y|49"));
  memdb_set_field(table, row, 0, "h");
  EXPECT_EQ(answer(table, 2, "49", {"h", "y", ANY}), LEFT_TO_A_WALK);
}

// Memory.

TEST_F(PrefixLookUpTest, IsDoneWithoutWhereMemoryIsShort) {
  memdb_tbl *const table = make_routes();
  for (const int fails : {2, 3}) {
    seen_.fail_at = seen_.allocations + fails;
    EXPECT_NE(insert(table, {"g", "49", "a"}), nullptr);
    EXPECT_FALSE(is_known(table));
    const int before = seen_.allocations;
    insert(table, {"g", "49", "b"});
    EXPECT_EQ(seen_.allocations, before + 1) << "it isn't tried again";
    delete_oldest(table, 2);
  }
  insert(table, {"g", "49", "c"});
  EXPECT_THAT(route(table, "g", "49"), ElementsAre("g|49|c"));
  EXPECT_THAT(seen_.errors, IsEmpty());
  EXPECT_THAT(seen_.warnings, IsEmpty());
}

TEST_F(PrefixLookUpTest, IsDoneWithoutWhereItCannotGrow) {
  memdb_tbl *const table = make_routes();
  const uint32_t rows = insert_until_it_grows(table);
  memdb_delete_all(table);
  insert_many(table, rows - 1);
  EXPECT_TRUE(is_known(table));
  seen_.fail_at = seen_.allocations + 2;
  insert_many(table, 1);
  EXPECT_FALSE(is_known(table));
  EXPECT_EQ(table->row_cnt, rows);
  EXPECT_THAT(seen_.errors, IsEmpty());
}

TEST_F(PrefixLookUpTest, KeepsWideSlotsWhereThereIsNoMemoryForFewer) {
  memdb_tbl *const table = make_routes();
  insert_many(table, 1000);
  for (int i = 0; i < 900; i++) {
    seen_.fail_at = seen_.allocations + 1;
    delete_oldest(table, 1);
  }
  EXPECT_TRUE(is_known(table));
  EXPECT_THAT(route(table, "g", "9950"), ElementsAre("g|9950|many"));
}

TEST_F(PrefixLookUpTest, GivesSlotsBackTheWayRowsAre) {
  static std::vector<void *> given_back;
  given_back.clear();
  memdb_retire = [](void *block) { given_back.push_back(block); };
  memdb_tbl *const table = make_routes();
  insert_many(table, 100);
  const size_t replaced = given_back.size();
  EXPECT_GT(replaced, 0U);
  memdb_delete_all(table);
  EXPECT_EQ(given_back.size(), replaced + 2 + 100);
  memdb_retire = [](void *block) { memdb_free(block); };
  for (void *block : given_back) memdb_free(block);
}

}  // namespace
}  // namespace engine_test
