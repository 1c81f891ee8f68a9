// Row limit, duplicate check, generated index, and what stands when one of them refuses.
#include "tests/unit/tables/admission_fixture.h"

namespace tables_test {
namespace {

class IndexTest : public AdmissionTest {
 protected:
  void start_indexed() {
    table_spec spec;
    spec.use_index = true;
    start(spec);
  }

  // What the callers do with the block that insert_index made.
  static void drop_index(query_in *in) {
    pkg_free(in->flds[0]);
    in->flds[0] = nullptr;
  }
};

TEST_F(IndexTest, TheNextIndexTakesThePlaceOfTheFirstField) {
  start_indexed();
  const auto in = query({"whatever", "b", "c"});
  const size_t before = standin::live_bytes(pool::pkg);
  EXPECT_TRUE(insert_index(table(), in.get()));
  EXPECT_STREQ(in->flds[0], "1");
  EXPECT_STREQ(in->flds[1], "b");
  EXPECT_EQ(standin::live_bytes(pool::pkg), before + 256);
  EXPECT_EQ(table()->next_index, 2u);
  drop_index(in.get());
}

TEST_F(IndexTest, TheHighestIndexIsWrittenUnsigned) {
  start_indexed();
  table()->next_index = 4294967295u;
  const auto in = query({"x", "b", "c"});
  EXPECT_TRUE(insert_index(table(), in.get()));
  EXPECT_STREQ(in->flds[0], "4294967295");
  EXPECT_EQ(table()->next_index, 0u);
  drop_index(in.get());
}

TEST_F(IndexTest, AnOverflownCounterRefusesOnceAndGoesOnFromOne) {
  start_indexed();
  table()->next_index = 0;
  const auto in = query({"x", "b", "c"});
  EXPECT_FALSE(insert_index(table(), in.get()));
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(debug(), texts{"Table 't' next index to be used was set to 1\n"});
  drop_index(in.get());
  EXPECT_TRUE(insert_index(table(), in.get()));
  EXPECT_STREQ(in->flds[0], "1");
  drop_index(in.get());
}

TEST_F(IndexTest, WithoutMemoryNoIndexIsDrawn) {
  start_indexed();
  const auto in = query({"x", "b", "c"});
  standin::fail_at(pool::pkg, 1);
  EXPECT_FALSE(insert_index(table(), in.get()));
  EXPECT_EQ(debug(), texts{"Could not allocate memory for index!\n"});
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(table()->next_index, 1u);
}

TEST_F(IndexTest, WithoutAllocationTheIndexGoesIntoTheGivenBlock) {
  start_indexed();
  char block[INDEX_TEXT_SIZE] = "whatever";
  const auto in = query({"x", "b", "c"});
  in->flds[0] = block;
  standin::reset_allocation_count();
  EXPECT_TRUE(insert_index_no_alloc(table(), in.get()));
  EXPECT_STREQ(block, "1");
  EXPECT_TRUE(insert_index_no_alloc(table(), in.get()));
  EXPECT_STREQ(block, "2");
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
}

TEST_F(IndexTest, WithoutAllocationAnOverflownCounterRefusesToo) {
  start_indexed();
  char block[INDEX_TEXT_SIZE] = "whatever";
  const auto in = query({"x", "b", "c"});
  in->flds[0] = block;
  table()->next_index = 0;
  EXPECT_FALSE(insert_index_no_alloc(table(), in.get()));
  EXPECT_EQ(table()->next_index, 1u);
}

class DuplicateTest : public AdmissionTest {
 protected:
  bool check(const std::vector<const char *> &fields) {
    standin::clear_logs();
    const auto in = query(fields);
    const size_t before = standin::live_count(pool::pkg);
    const duplicate_state state = insert_check_for_duplicated_data(table(), in.get());
    EXPECT_EQ(standin::live_count(pool::pkg), before);
    EXPECT_EQ(debug(), texts{state == duplicate_state::stored ? "Found a match\n"
                                                              : "Did not find a match\n"});
    return state == duplicate_state::stored;
  }

  void start_indexed(std::vector<column> columns) {
    table_spec spec;
    spec.use_index = true;
    spec.columns = std::move(columns);
    start(spec);
  }
};

TEST_F(DuplicateTest, InAPlainTableAllColumnsCount) {
  start(table_spec{});
  add(table(), {"a", "b", "c"});
  EXPECT_TRUE(check({"a", "b", "c"}));
  EXPECT_FALSE(check({"x", "b", "c"}));
  EXPECT_FALSE(check({"a", "x", "c"}));
  EXPECT_FALSE(check({"a", "b", "x"}));
  EXPECT_FALSE(check({"a", "b", ""}));
}

TEST_F(DuplicateTest, AnEmptyTableHoldsNoDuplicate) {
  start(table_spec{});
  EXPECT_FALSE(check({"a", "b", "c"}));
}

TEST_F(DuplicateTest, AnyRowCanBeTheMatch) {
  start(table_spec{});
  for (const char *key : {"1", "2", "3"}) add(table(), {key, key, key});
  for (const char *key : {"1", "2", "3"}) EXPECT_TRUE(check({key, key, key}));
}

TEST_F(DuplicateTest, APlainTableNeedsNoMemory) {
  start(table_spec{});
  const auto in = query({"a", "b", "c"});
  standin::reset_allocation_count();
  insert_check_for_duplicated_data(table(), in.get());
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
}

TEST_F(DuplicateTest, AGeneratedIndexDoesNotCount) {
  start_indexed({{"id", 10, 1}, {"b", 15, 0}, {"c", 15, 1}});
  add(table(), {"1", "b", "c"});
  EXPECT_TRUE(check({"99", "b", "c"}));
  EXPECT_TRUE(check({"", "b", "c"}));
  EXPECT_FALSE(check({"1", "x", "c"}));
  EXPECT_FALSE(check({"1", "b", "x"}));
}

TEST_F(DuplicateTest, AWildcardInAComparedColumnEqualsEveryValue) {
  start_indexed({{"id", 10, 1}, {"b", 15, 0}, {"c", 15, 1}});
  add(table(), {"1", "b", "c"});
  EXPECT_TRUE(check({"", "b", nullptr}));
  EXPECT_TRUE(check({"", nullptr, "c"}));
  EXPECT_TRUE(check({"", nullptr, nullptr}));
  EXPECT_FALSE(check({"", nullptr, "x"}));
}

TEST_F(DuplicateTest, ATableOfTheIndexAloneHasADuplicateAsSoonAsItHasARow) {
  start_indexed({{"id", 10, 1}});
  EXPECT_FALSE(check({"1"}));
  add(table(), {"5"});
  EXPECT_TRUE(check({"1"}));
}

TEST_F(DuplicateTest, InAPortTableColumns1To3Count) {
  start(port_table("dynamic"));
  add(table(), {"n", "1", "2", "3", "x", "WAN", "100", "y", "6", "200"});
  EXPECT_TRUE(check({"other", "1", "2", "3", "-", "LAN", "101", "-", "3", "201"}));
  EXPECT_FALSE(check({"n", "x", "2", "3", "x", "WAN", "100", "y", "6", "200"}));
  EXPECT_FALSE(check({"n", "1", "x", "3", "x", "WAN", "100", "y", "6", "200"}));
  EXPECT_FALSE(check({"n", "1", "2", "x", "x", "WAN", "100", "y", "6", "200"}));
}

TEST_F(DuplicateTest, APortTableWithAnIndexComparesAsAPortTable) {
  table_spec spec = port_table("dynamic");
  spec.use_index = true;
  start(spec);
  add(table(), {"1", "1", "2", "3", "x", "WAN", "100", "y", "6", "200"});
  EXPECT_TRUE(check({"9", "1", "2", "3", "-", "-", "-", "-", "-", "-"}));
}

TEST_F(DuplicateTest, APortTableOfFewColumnsComparesThoseItHas) {
  table_spec spec = port_table("dynamic");
  spec.columns.resize(2);
  start(spec);
  add(table(), {"a", "b"});
  EXPECT_TRUE(check({"x", "b"}));
  EXPECT_FALSE(check({"a", "x"}));
}

TEST_F(DuplicateTest, AFlagOtherThanOneIsAPlainTable) {
  table_spec spec;
  spec.flag = 2;
  start(spec);
  add(table(), {"a", "b", "c"});
  EXPECT_FALSE(check({"x", "b", "c"}));
  EXPECT_TRUE(check({"a", "b", "c"}));
}

TEST_F(DuplicateTest, TheComparisonBlockHas264BytesPerColumn) {
  start_indexed({{"id", 10, 1}, {"b", 15, 0}, {"c", 15, 1}});
  const auto in = query({"1", "b", "c"});
  standin::fail_at(pool::pkg, 2);
  standin::reset_allocation_count();
  EXPECT_EQ(insert_check_for_duplicated_data(table(), in.get()), duplicate_state::absent);
  EXPECT_EQ(standin::allocation_count(pool::pkg), 1u);
}

TEST_F(DuplicateTest, WithoutMemoryTheCheckFails) {
  start_indexed({{"id", 10, 1}, {"b", 15, 0}});
  const auto in = query({"1", "b"});
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(insert_check_for_duplicated_data(table(), in.get()), duplicate_state::unknown);
  EXPECT_EQ(errors(), texts{"Could not allocate memory for fields_in\n"});
}

TEST_F(DuplicateTest, AValueOf31CharactersIsCompared) {
  start(port_table("dynamic"));
  const std::string value(31, 'v');
  const char *const v = value.c_str();
  add(table(), {"n", v, v, v, "", "", "", "", "", ""});
  EXPECT_TRUE(check({"n", v, v, v, "", "", "", "", "", ""}));
}

TEST_F(DuplicateTest, AValueOf32OrMoreCharactersDefeatsTheCheckUnlessItStandsLast) {
  start(port_table("dynamic"));
  for (const size_t length : {32UL, 33UL, 40UL, 63UL, 64UL, 65UL, 96UL, 100UL}) {
    const std::string value(length, 'v');
    const char *const v = value.c_str();
    for (int at = 1; at <= 3; at++) {
      memdb_delete_all(table()->tbl);
      std::vector<const char *> row = {"n", "1", "2", "3", "", "", "", "", "", ""};
      row[static_cast<size_t>(at)] = v;
      memdb_insert(table()->tbl, row.data());
      EXPECT_EQ(check(row), at == 3 ? 1 : 0) << length << " characters in column " << at;
    }
  }
}

TEST_F(DuplicateTest, AValueOf32CharactersAheadOfAnEmptyOneIsStillWhole) {
  start(port_table("dynamic"));
  const std::string exact(32, 'v');
  const std::string longer(33, 'v');
  const char *const e = exact.c_str();
  const char *const l = longer.c_str();
  add(table(), {"n", e, "", "3", "", "", "", "", "", ""});
  EXPECT_TRUE(check({"n", e, "", "3", "", "", "", "", "", ""}));
  // One more character is cut off there, and finds the row that lacks it.
  EXPECT_TRUE(check({"n", l, "", "3", "", "", "", "", "", ""}));
}

TEST_F(DuplicateTest, TheOverrunReadsAsTheFirst32BytesAndTheNextValue) {
  start(port_table("dynamic"));
  const std::string value(40, 'v');
  const std::string seen = std::string(32, 'v') + "next";
  add(table(), {"n", seen.c_str(), "next", "3", "", "", "", "", "", ""});
  EXPECT_TRUE(check({"n", value.c_str(), "next", "3", "", "", "", "", "", ""}));
}

TEST_F(DuplicateTest, LongValuesWithAGeneratedIndexAreDefeatedUnlessLast) {
  start_indexed({{"id", 10, 1}, {"b", 100, 0}, {"c", 100, 0}});
  const std::string value(40, 'v');
  const char *const v = value.c_str();
  add(table(), {"1", v, "c"});
  add(table(), {"2", "b", v});
  EXPECT_FALSE(check({"9", v, "c"}));
  EXPECT_TRUE(check({"9", "b", v}));
}

TEST_F(DuplicateTest, ValuesLongerThanTheBlockStayInside) {
  start_indexed({{"id", 10, 1}, {"b", 5000, 0}, {"c", 5000, 0}});
  // Of the block of 3 * 264 bytes, 536 are left from the last slot on.
  for (const size_t length : {534UL, 535UL, 536UL, 537UL, 600UL, 4999UL}) {
    memdb_delete_all(table()->tbl);
    const std::string value(length, 'v');
    const char *const v = value.c_str();
    add(table(), {"1", "b", v});
    add(table(), {"2", v, "c"});
    EXPECT_EQ(check({"9", "b", v}), length <= 535 ? 1 : 0) << length;
    EXPECT_FALSE(check({"9", v, "c"}));
    EXPECT_FALSE(check({"9", v, v}));
  }
}

TEST_F(DuplicateTest, LongValuesInManyColumnsStayInside) {
  start(port_table("dynamic"));
  const std::string value(10000, 'v');
  const char *const v = value.c_str();
  add(table(), {v, v, v, v, v, v, v, v, v, v});
  EXPECT_FALSE(check({v, v, v, v, v, v, v, v, v, v}));
}

TEST_F(DuplicateTest, AnOverlongValueDoesNotEqualItsStoredForm) {
  table_spec spec;
  spec.columns = {{"a", 3, 1}, {"b", 3, 0}};
  start(spec);
  add(table(), {"abcdef", "x"});
  EXPECT_FALSE(check({"abcdef", "x"}));
  EXPECT_TRUE(check({"abc", "x"}));
}

class AdmitTest : public AdmissionTest {
 protected:
  admission admit(const std::vector<const char *> &fields, bool check_duplicates = false) {
    standin::clear_logs();
    const auto in = query(fields);
    const size_t before = standin::live_count(pool::pkg);
    const admission out =
        admit_row(table(), in.get(), {check_duplicates, index_text::own_block}, &result);
    EXPECT_EQ(standin::live_count(pool::pkg), before);
    return out;
  }

  // Nothing of the table has changed since mark.
  void mark() { marked_ = *table(), marked_rows_ = rows(table()); }
  void expect_untouched() {
    EXPECT_EQ(rows(table()), marked_rows_);
    EXPECT_EQ(table()->row_count, marked_.row_count);
    EXPECT_EQ(table()->state, marked_.state);
    EXPECT_EQ(table()->next_index, marked_.next_index);
  }

  int32_t result = 0;

 private:
  tarn_tbl marked_{};
  texts marked_rows_;
};

TEST_F(AdmitTest, ARowIsAddedCountedAndMarked) {
  start(table_spec{});
  EXPECT_EQ(admit({"a", "b", "c"}), admission::added);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(rows(table()), texts{"a|b|c"});
  EXPECT_EQ(table()->row_count, 1);
  EXPECT_EQ(table()->state, TBL_CHANGED);
  EXPECT_EQ(table()->next_index, 1u);
  EXPECT_EQ(debug(),
            (texts{"Initializing flag_treatment ...\n", "Table 't' state was set to value 1\n",
                   "Table 't' row count was set to 1\n"}));
}

TEST_F(AdmitTest, AClearedTableBecomesAChangedOne) {
  start(table_spec{});
  table()->state = TBL_CLEARED;
  EXPECT_EQ(admit({"a", "b", "c"}), admission::added);
  EXPECT_EQ(table()->state, TBL_CHANGED);
}

TEST_F(AdmitTest, AGeneratedIndexIsStoredAndGivenBack) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  EXPECT_EQ(admit({"own", "b", "c"}), admission::added);
  EXPECT_EQ(result, 1);
  table()->next_index = 41;
  EXPECT_EQ(admit({"", "b", "c"}), admission::added);
  EXPECT_EQ(result, 41);
  EXPECT_EQ(rows(table()), (texts{"41|b|c", "1|b|c"}));
  EXPECT_EQ(table()->next_index, 42u);
}

TEST_F(AdmitTest, AtTheRowLimitRowsAreRefused) {
  table_spec spec;
  spec.max_rows = 2;
  spec.use_index = true;
  start(spec);
  EXPECT_EQ(admit({"", "1", ""}), admission::added);
  EXPECT_EQ(admit({"", "2", ""}), admission::added);
  table()->state = TBL_UNCHANGED;
  mark();
  EXPECT_EQ(admit({"", "3", ""}), admission::full);
  expect_untouched();
  EXPECT_TRUE(standin::logs().empty());
}

TEST_F(AdmitTest, BeyondTheRowLimitATableGoesOnGrowing) {
  table_spec spec;
  spec.max_rows = 2;
  start(spec);
  write(main_file(), "Version 1\n1||\n2||\n3||\n");
  load_table(table());
  EXPECT_EQ(admit({"4", "", ""}), admission::added);
  EXPECT_EQ(table()->row_count, 4);
}

TEST_F(AdmitTest, ALimitOfZeroTakesNoRow) {
  table_spec spec;
  spec.max_rows = 0;
  start(spec);
  EXPECT_EQ(admit({"a", "b", "c"}), admission::full);
}

TEST_F(AdmitTest, TheLimitIsComparedWithTheCountAlone) {
  table_spec spec;
  spec.max_rows = 1;
  start(spec);
  admit({"a", "b", "c"});
  table()->row_count = 0;
  EXPECT_EQ(admit({"d", "e", "f"}), admission::added);
}

TEST_F(AdmitTest, ADuplicateIsRefusedAndOneOfAnotherTextTaken) {
  start(table_spec{});
  EXPECT_EQ(admit({"a", "b", "c"}, true), admission::added);
  table()->state = TBL_UNCHANGED;
  mark();
  EXPECT_EQ(admit({"a", "b", "c"}, true), admission::duplicate);
  expect_untouched();
  EXPECT_EQ(admit({"a", "b", "x"}, true), admission::added);
  EXPECT_EQ(admit({"x", "b", "c"}, true), admission::added);
}

TEST_F(AdmitTest, WithoutTheCheckDuplicatesAreTaken) {
  start(table_spec{});
  EXPECT_EQ(admit({"a", "b", "c"}), admission::added);
  EXPECT_EQ(admit({"a", "b", "c"}), admission::added);
  EXPECT_EQ(rows(table()), (texts{"a|b|c", "a|b|c"}));
}

TEST_F(AdmitTest, ADuplicateUsesUpNoIndex) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  EXPECT_EQ(admit({"1", "b", "c"}, true), admission::added);
  table()->state = TBL_UNCHANGED;
  mark();
  EXPECT_EQ(admit({"77", "b", "c"}, true), admission::duplicate);
  expect_untouched();
}

TEST_F(AdmitTest, TheLimitComesBeforeTheCheck) {
  table_spec spec;
  spec.max_rows = 1;
  start(spec);
  admit({"a", "b", "c"}, true);
  EXPECT_EQ(admit({"a", "b", "c"}, true), admission::full);
  EXPECT_TRUE(standin::logs().empty());
}

TEST_F(AdmitTest, ACheckThatFailsCountsAsADuplicate) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  mark();
  const auto in = query({"1", "b", "c"});
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(admit_row(table(), in.get(), {true, index_text::own_block}, &result),
            admission::duplicate);
  expect_untouched();
  EXPECT_EQ(errors(), texts{"Could not allocate memory for fields_in\n"});
}

TEST_F(AdmitTest, WithoutMemoryForTheIndexThereIsNoRow) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  mark();
  const auto in = query({"1", "b", "c"});
  standin::fail_at(pool::pkg, 1);
  EXPECT_EQ(admit_row(table(), in.get(), {false, index_text::own_block}, &result),
            admission::no_index);
  expect_untouched();
}

TEST_F(AdmitTest, AnOverflownIndexRefusesOneRow) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  table()->next_index = 4294967295u;
  EXPECT_EQ(admit({"", "last", ""}), admission::added);
  EXPECT_EQ(admit({"", "none", ""}), admission::no_index);
  EXPECT_EQ(admit({"", "first", ""}), admission::added);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(rows(table()), (texts{"1|first|", "4294967295|last|"}));
  EXPECT_EQ(table()->row_count, 2);
}

TEST_F(AdmitTest, WithoutMemoryForTheRowTheIndexIsUsedUp) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  const auto in = query({"1", "b", "c"});
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(admit_row(table(), in.get(), {false, index_text::own_block}, &result),
            admission::not_inserted);
  EXPECT_EQ(errors(), texts{"Fail to allocate memory to the row\n"});
  EXPECT_EQ(rows(table()), texts{});
  EXPECT_EQ(table()->row_count, 0);
  EXPECT_EQ(table()->state, TBL_UNCHANGED);
  EXPECT_EQ(table()->next_index, 2u);
}

TEST_F(AdmitTest, EachAllocationFailingInTurnLeavesNoRowAndNoLeak) {
  table_spec spec = port_table("dynamic");
  spec.use_index = true;
  start_with_ports(spec);
  const std::vector<const char *> row = {"", "1", "2", "3", "", "WAN", "103", "", "6", "203"};
  const admission expected[] = {admission::duplicate, admission::no_index, admission::not_inserted,
                                admission::added};
  for (uint64_t failing = 1; failing <= 4; failing++) {
    const auto in = query(row);
    const size_t before = standin::live_count(pool::both);
    standin::fail_at(pool::both, failing);
    EXPECT_EQ(admit_row(table(), in.get(), {true, index_text::own_block}, &result),
              expected[failing - 1]);
    standin::stop_failing();
    const size_t added = expected[failing - 1] == admission::added ? 1 : 0;
    EXPECT_EQ(standin::live_count(pool::both), before + added);
    EXPECT_EQ(table()->row_count, static_cast<int32_t>(added));
    EXPECT_EQ(held(), added == 1 ? texts{"INT:103=81"} : texts{});
  }
}

TEST_F(AdmitTest, AnInsertIsOneSharedAllocation) {
  start(table_spec{});
  const auto in = query({"a", "b", "c"});
  standin::reset_allocation_count();
  EXPECT_EQ(admit_row(table(), in.get(), {true, index_text::own_block}, &result), admission::added);
  EXPECT_EQ(standin::allocation_count(pool::shm), 1u);
  EXPECT_EQ(standin::allocation_count(pool::pkg), 0u);
}

TEST_F(AdmitTest, AGivenIndexBlockIsLeftToItsOwner) {
  table_spec spec;
  spec.use_index = true;
  start(spec);
  const auto in = query({"1", "b", "c"});
  char block[INDEX_TEXT_SIZE] = "own";
  in->flds[0] = block;
  table()->next_index = 9;
  EXPECT_EQ(admit_row(table(), in.get(), {false, index_text::in_place}, &result), admission::added);
  EXPECT_EQ(result, 9);
  EXPECT_STREQ(block, "9");
  EXPECT_EQ(rows(table()), texts{"9|b|c"});
  table()->next_index = 0;
  EXPECT_EQ(admit_row(table(), in.get(), {false, index_text::in_place}, &result),
            admission::no_index);
}

TEST_F(AdmitTest, AnOverlongRowCanBeAddedTwice) {
  table_spec spec;
  spec.columns = {{"a", 3, 1}, {"b", 3, 0}};
  start(spec);
  EXPECT_EQ(admit({"abcdef", "x"}, true), admission::added);
  EXPECT_EQ(admit({"abcdef", "x"}, true), admission::added);
  EXPECT_EQ(admit({"abc", "x"}, true), admission::duplicate);
  EXPECT_EQ(rows(table()), (texts{"abc|x", "abc|x"}));
}

TEST_F(AdmitTest, ARowOfAPortTableTakesItsPort) {
  start_with_ports(port_table("dynamic"));
  EXPECT_EQ(admit({"n", "1", "2", "3", "", "WAN", "103", "", "3", "203"}, true), admission::added);
  EXPECT_EQ(held(), texts{"INT:103=81"});
  EXPECT_EQ(admit({"m", "1", "2", "3", "", "LAN", "104", "", "3", "204"}, true),
            admission::duplicate);
  EXPECT_EQ(held(), texts{"INT:103=81"});
  const std::string value(40, 'v');
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(admit({"n", "1", value.c_str(), "3", "", "LAN", "", "", "3", "205"}, true),
              admission::added);
  }
  EXPECT_EQ(held(), (texts{"INT:103=81", "EXT:205=82"}));
}

TEST_F(AdmitTest, ARowWhosePortIsOutOfRangeStays) {
  start_with_ports(port_table("dynamic"));
  EXPECT_EQ(admit({"n", "1", "2", "3", "", "WAN", "999", "", "3", "203"}), admission::added);
  EXPECT_EQ(table()->row_count, 1);
  EXPECT_EQ(held(), texts{});
  EXPECT_TRUE(logged(L_DBG, "Port 999 NOT set on load for range dynamic!\n"));
}

}  // namespace
}  // namespace tables_test
