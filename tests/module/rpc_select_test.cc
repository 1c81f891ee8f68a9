// "tarn_memdb.select" and "tarn_memdb.nl_select".
#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table ONE = {.name = "one", .columns = {{"a"}}};

// The two commands, and what stands before a line that is sent with the table's lock held.
struct flavour {
  const char *command;
  const char *held;
};

std::ostream &operator<<(std::ostream &out, const flavour &shown) { return out << shown.command; }

class RpcSelectTest : public RpcTest, public testing::WithParamInterface<flavour> {
 protected:
  steps select_trace(const std::string &query, int least_grave = INFO_LEVEL) {
    return trace(GetParam().command, {query}, least_grave);
  }
  steps select_lines(const std::string &query) { return lines(GetParam().command, {query}); }
  std::string row_line(const std::string &text) const { return GetParam().held + text; }

  void open_with_users() {
    write_file(main_file("users"), table_text({"alice|30|rome", "bob|31|oslo", "carol|30|bern"}));
    open({USERS, ONE});
  }
};

INSTANTIATE_TEST_SUITE_P(Flavours, RpcSelectTest,
                         testing::Values(flavour{"tarn_memdb.select", "{users} line "},
                                         flavour{"tarn_memdb.nl_select", "line "}),
                         [](const auto &each) { return each.index == 0 ? "Locked" : "Unlocked"; });

TEST_P(RpcSelectTest, AHeadAndThenALinePerRowNewestFirst) {
  open_with_users();
  EXPECT_THAT(
      select_trace("users,*|30|*"),
      ElementsAre("scan S", "line TABLE:", row_line("carol|30|bern"), row_line("alice|30|rome")));
  EXPECT_THAT(reply.lines, ElementsAre("TABLE:", "carol|30|bern", "alice|30|rome"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_THAT(reply.containers, IsEmpty());
}

TEST_P(RpcSelectTest, AnIndexedColumnLeadsTheSearch) {
  open_with_users();
  insert("users,bob|50|rome");
  EXPECT_THAT(select_lines("users,bob|*|*"), ElementsAre("TABLE:", "bob|50|rome", "bob|31|oslo"));
}

TEST_P(RpcSelectTest, NoMatchGivesTheHeadAlone) {
  open_with_users();
  EXPECT_THAT(select_trace("users,nobody|*|*"), ElementsAre("scan S", "line TABLE:"));
}

TEST_P(RpcSelectTest, AnEmptyTableGivesTheHeadAlone) {
  open_with_users();
  EXPECT_THAT(select_trace("one,*"), ElementsAre("scan S", "line TABLE:"));
  EXPECT_THAT(reply.faults, IsEmpty());
}

TEST_P(RpcSelectTest, ATableOfOneColumnGivesLinesWithoutABar) {
  open_with_users();
  insert("one,x");
  insert("one,y");
  EXPECT_THAT(select_lines("one,*"), ElementsAre("TABLE:", "y", "x"));
}

TEST_P(RpcSelectTest, EmptyFieldsShowAsNothingBetweenBars) {
  open_with_users();
  insert("users,dan||");
  EXPECT_THAT(select_lines("users,*||"), ElementsAre("TABLE:", "dan||"));
}

TEST_P(RpcSelectTest, ALimitBehindTheFieldsEndsTheReply) {
  open_with_users();
  EXPECT_THAT(select_lines("users,*|*|*,2"), ElementsAre("TABLE:", "carol|30|bern", "bob|31|oslo"));
  EXPECT_EQ(select_lines("users,*|*|*,500").size(), 4u);
}

TEST_P(RpcSelectTest, WithoutALimitNoMoreRowsAreShownThanTheTableMayHold) {
  table two = ONE;
  two.max_rows = 2;
  write_file(main_file("one"), table_text({"1", "2", "3"}));
  open({two});
  EXPECT_THAT(select_lines("one,*"), ElementsAre("TABLE:", "3", "2"));
  EXPECT_THAT(select_lines("one,*,3"), ElementsAre("TABLE:", "3", "2", "1"));
}

TEST_P(RpcSelectTest, ValuesAreNoFormats) {
  open_with_users();
  insert("one,%s%n%d%%");
  EXPECT_THAT(select_lines("one,*"), ElementsAre("TABLE:", "%s%n%d%%"));
}

TEST_P(RpcSelectTest, WithoutAnArgument) {
  open_with_users();
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(GetParam().command),
                ElementsAre("scan S", "warn RPC Select: wrong number of parameters\n",
                            "fault 500 wrong number of parameters"));
    EXPECT_EQ(reply.fault->text, "wrong number of parameters");
  }
}

TEST_P(RpcSelectTest, AQueryThatDoesNotParseIsFaultedWithTheNameFoundInIt) {
  open_with_users();
  const std::string log = "err RPC Select: parse error of: 'users'";
  const std::string fault = "fault 500 Parse Error of: 'users'";
  EXPECT_THAT(select_trace("users"),
              ElementsAre("scan S", "err Field list is missing\n", log, fault));
  EXPECT_THAT(
      select_trace("users,a"),
      ElementsAre("scan S", "err Size mismatch",
                  "err Wrong number of fields in field list: users,a | (null)\n", log, fault));
  EXPECT_THAT(select_trace("users,*|*|*,0"),
              ElementsAre("scan S", "err Invalid value for maximum result count\n", log, fault));
  EXPECT_THAT(select_trace(",*|*|*"),
              ElementsAre("scan S", "err Table '' was not found\n", "err Table not found\n",
                          "err RPC Select: parse error of: ''", "fault 500 Parse Error of: ''"));
  EXPECT_THAT(select_trace("nobody,*"),
              ElementsAre("scan S", "err Table 'nobody' was not found\n", "err Table not found\n",
                          "err RPC Select: parse error of: 'nobody'",
                          "fault 500 Parse Error of: 'nobody'"));
  EXPECT_THAT(reply.lines, IsEmpty());
}

TEST_P(RpcSelectTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  for (const size_t length : {32u, 33u, 5000u}) {
    select_trace(std::string(length, 'n') + ",*");
    EXPECT_EQ(reply.faults.at(0).text, "Parse Error of: '" + known + "'");
  }
  EXPECT_THAT(select_lines(known + ",*"), ElementsAre("TABLE:"));
}

TEST_P(RpcSelectTest, AHeadThatCannotBeSentEndsTheCommandWithoutAFault) {
  open_with_users();
  standin::fail_call("rpc.rpl_printf", 1);
  EXPECT_THAT(select_trace("users,*|*|*", DBG_LEVEL), ElementsAre("scan S", "line TABLE:"));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_THAT(reply.lines, IsEmpty());
  EXPECT_EQ(select_lines("users,*|*|*").size(), 4u);
}

TEST_P(RpcSelectTest, ARowThatCannotBeSentEndsTheReplyWithoutAFault) {
  open_with_users();
  const steps all = {"TABLE:", "carol|30|bern", "bob|31|oslo", "alice|30|rome"};
  for (size_t failing = 2; failing <= all.size(); failing++) {
    standin::fail_call("rpc.rpl_printf", static_cast<int>(failing));
    EXPECT_EQ(select_trace("users,*|*|*", DBG_LEVEL).size(), failing + 1);
    EXPECT_THAT(reply.faults, IsEmpty());
    EXPECT_EQ(reply.lines, steps(all.begin(), all.begin() + static_cast<long>(failing) - 1));
    EXPECT_EQ(select_lines("users,*|*|*"), all);
  }
}

TEST_P(RpcSelectTest, ALongRowIsCutAtTheBuffersEnd) {
  open({{.name = "long", .columns = {{"a", 3000}, {"b", 3000}, {"c"}}}});
  insert("long," + std::string(3000, 'a') + "|" + std::string(3000, 'b') + "|c");
  EXPECT_THAT(select_lines("long,*|*|*"),
              ElementsAre("TABLE:", std::string(3000, 'a') + "|" + std::string(1094, 'b')));
}

TEST_P(RpcSelectTest, NothingChanges) {
  open_with_users();
  select_lines("users,*|*|*");
  EXPECT_FALSE(store_writes("users"));
  expect_rows("users", {{"alice", "30", "rome"}, {"bob", "31", "oslo"}, {"carol", "30", "bern"}});
}

TEST_P(RpcSelectTest, AQueryWithoutMemoryIsOneThatDoesNotParse) {
  open_with_users();
  standin::fail_at(pool::both, 1);
  EXPECT_THAT(
      select_trace("users,*|*|*"),
      ElementsAre("scan S", "crit no more pkg memory\n",
                  "err Wrong number of fields in field list: users,*|*|* | (null)\n",
                  "err RPC Select: parse error of: 'users'", "fault 500 Parse Error of: 'users'"));
  standin::reset_allocation_count();
  select_lines("users,*|*|*");
  EXPECT_EQ(standin::allocation_count(pool::both), 1u) << "there is no other allocation to fail";
}

}  // namespace
}  // namespace module_test
