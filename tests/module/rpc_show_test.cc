// "tarn_memdb.show" and "tarn_memdb.show_p".
#include "tests/module/rpc_trace.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char SHOW[] = "tarn_memdb.show";
constexpr char SHOW_P[] = "tarn_memdb.show_p";

const table USERS = {
    .name = "users", .columns = {{"name", 31, true}, {"age"}, {"city"}}, .log_tag = "USERS"};
const table ONE = {.name = "one", .columns = {{"a"}}};

const std::string RULE = std::string(40, '-') + "\n";

class RpcShowTest : public RpcTest {
 protected:
  void open_with_users() {
    write_file(main_file("users"), table_text({"alice|30|rome", "bob||"}));
    open({USERS, ONE});
  }

  // The texts of the reply's containers, each of which has to hold one.
  steps container_texts() {
    steps out;
    for (const standin::rpc_container &container : reply.containers) {
      EXPECT_THAT(container.texts, SizeIs(1));
      EXPECT_THAT(container.members, IsEmpty());
      for (const std::string &text : container.texts) out.push_back(text);
    }
    return out;
  }
};

TEST_F(RpcShowTest, ShowTellsNameCountColumnsAndRowsNewestFirstUnderTheLock) {
  open_with_users();
  EXPECT_THAT(trace(SHOW, {"users"}),
              ElementsAre("scan s", "{users} line Table: users", "{users} line Row count: 2",
                          "{users} line name|age|city", "{users} open [", "{users} text bob||",
                          "{users} open [", "{users} text alice|30|rome"));
  EXPECT_THAT(reply.lines, ElementsAre("Table: users", "Row count: 2", "name|age|city"));
  EXPECT_THAT(container_texts(), ElementsAre("bob||", "alice|30|rome"));
  EXPECT_THAT(reply.faults, IsEmpty());
}

TEST_F(RpcShowTest, ShowPTellsAParagraphPerRowUnderTheLock) {
  open_with_users();
  const std::string bob = RULE + "name: \"bob\"\nage: \"\"\ncity: \"\"\n";
  const std::string alice = RULE + "name: \"alice\"\nage: \"30\"\ncity: \"rome\"\n";
  EXPECT_THAT(trace(SHOW_P, {"users"}),
              ElementsAre("scan s", "{users} line Table: users", "{users} line Row count: 2",
                          "{users} open [", "{users} text " + bob, "{users} open [",
                          "{users} text " + alice));
  EXPECT_THAT(container_texts(), ElementsAre(bob, alice));
}

TEST_F(RpcShowTest, AHostWithTheNinthOperationIsAskedForTheOtherContainer) {
  standin::set_host_kind(standin::host_kind::ninth_operation);
  open_with_users();
  for (const char *command : {SHOW, SHOW_P}) {
    trace(command, {"users"});
    EXPECT_THAT(reply.faults, IsEmpty());
    ASSERT_THAT(reply.containers, SizeIs(2)) << command;
    for (const standin::rpc_container &container : reply.containers)
      EXPECT_EQ(container.format, "(") << command;
  }
}

TEST_F(RpcShowTest, HostsWithoutItAreAskedForTheContainerThatTheyKnow) {
  for (const auto kind :
       {standin::host_kind::exported_explode, standin::host_kind::without_explode}) {
    standin::set_host_kind(kind);
    open_with_users();
    for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
      standin::set_rpc_transport(transport);
      for (const char *command : {SHOW, SHOW_P}) {
        trace(command, {"users"});
        EXPECT_THAT(reply.faults, IsEmpty());
        ASSERT_THAT(reply.containers, SizeIs(2)) << command;
        for (const standin::rpc_container &container : reply.containers)
          EXPECT_EQ(container.format, "[") << command;
      }
    }
    rpc_watch::now().locks.clear();
    unload();
    load();
  }
}

TEST_F(RpcShowTest, AnEmptyTableShowsItsHeadAlone) {
  open_with_users();
  EXPECT_THAT(trace(SHOW, {"one"}), ElementsAre("scan s", "{one} line Table: one",
                                                "{one} line Row count: 0", "{one} line a"));
  EXPECT_THAT(trace(SHOW_P, {"one"}),
              ElementsAre("scan s", "{one} line Table: one", "{one} line Row count: 0"));
}

TEST_F(RpcShowTest, ATableOfOneColumnHasNoBars) {
  open_with_users();
  insert("one,x");
  trace(SHOW, {"one"});
  EXPECT_THAT(container_texts(), ElementsAre("x"));
}

TEST_F(RpcShowTest, AllRowsAreShownWhateverTheTablesLimit) {
  table two = ONE;
  two.max_rows = 2;
  write_file(main_file("one"), table_text({"1", "2", "3"}));
  open({two});
  for (const char *command : {SHOW, SHOW_P}) {
    trace(command, {"one"});
    EXPECT_THAT(reply.containers, SizeIs(3)) << command;
  }
}

TEST_F(RpcShowTest, ValuesAndNamesAreNoFormats) {
  open({{.name = "%s%n", .columns = {{"%d"}, {"%5000s"}}}});
  insert("%s%n,%s%n|%d");
  trace(SHOW, {"%s%n"});
  EXPECT_THAT(reply.lines, ElementsAre("Table: %s%n", "Row count: 1", "%d|%5000s"));
  EXPECT_THAT(container_texts(), ElementsAre("%s%n|%d"));
  trace(SHOW_P, {"%s%n"});
  EXPECT_THAT(container_texts(), ElementsAre(RULE + "%d: \"%s%n\"\n%5000s: \"%d\"\n"));
}

TEST_F(RpcShowTest, WithoutAnArgument) {
  open_with_users();
  for (const auto transport : {standin::rpc_transport::ctl, standin::rpc_transport::jsonrpcs}) {
    standin::set_rpc_transport(transport);
    EXPECT_THAT(trace(SHOW),
                ElementsAre("scan s", "warn RPC Show tbl: wrong number of parameters\n",
                            "fault 500 wrong number of parameters"));
    EXPECT_EQ(reply.fault->text, "wrong number of parameters");
    EXPECT_THAT(trace(SHOW_P),
                ElementsAre("scan s", "warn RPC Show tblp: wrong number of parameters\n",
                            "fault 500 wrong number of parameters"));
  }
}

TEST_F(RpcShowTest, AnUnknownTable) {
  open_with_users();
  EXPECT_THAT(trace(SHOW, {"nobody"}), ElementsAre("scan s", "err Table 'nobody' was not found\n",
                                                   "err RPC Show tbl: wrong table name: 'nobody'",
                                                   "fault 500 Wrong table name: 'nobody'"));
  EXPECT_THAT(trace(SHOW_P, {"nobody"}),
              ElementsAre("scan s", "err Table 'nobody' was not found\n",
                          "err RPC Show tblp: wrong table name: 'nobody'",
                          "fault 500 Wrong table name: 'nobody'"));
}

TEST_F(RpcShowTest, ShowTakesTheWholeArgumentForTheName) {
  open_with_users();
  EXPECT_THAT(trace(SHOW, {"users one"}),
              ElementsAre("scan s", "err Table 'users one' was not found\n",
                          "err RPC Show tbl: wrong table name: 'users one'",
                          "fault 500 Wrong table name: 'users one'"));
  trace(SHOW, {" users"});
  EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: ' users'");
  trace(SHOW, {""});
  EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: ''");
}

TEST_F(RpcShowTest, ShowPTakesTheArgumentsFirstWord) {
  open_with_users();
  for (const std::string argument :
       {"users one", "users\tone", "users\none", "  users", "\r\n users ", "users\v\f"}) {
    EXPECT_EQ(lines(SHOW_P, {argument}), (steps{"Table: users", "Row count: 2"})) << argument;
  }
  EXPECT_THAT(trace(SHOW_P, {"nobody users"}),
              ElementsAre("scan s", "err Table 'nobody' was not found\n",
                          "err RPC Show tblp: wrong table name: 'nobody'",
                          "fault 500 Wrong table name: 'nobody'"));
  for (const std::string argument : {"", " ", "\n\t "}) {
    trace(SHOW_P, {argument});
    EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: ''");
  }
}

TEST_F(RpcShowTest, ANameOf32CharactersOrMoreIsNeverCutToAKnownOne) {
  const std::string known(31, 'n');
  open({{.name = known, .columns = {{"a"}}}});
  for (const size_t length : {32u, 33u, 5000u}) {
    const std::string name(length, 'n');
    trace(SHOW, {name});
    EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: '" + name + "'");
    trace(SHOW_P, {name});
    EXPECT_EQ(reply.faults.at(0).text, "Wrong table name: '" + known + "'");
    EXPECT_THAT(reply.lines, IsEmpty());
  }
  EXPECT_THAT(lines(SHOW, {known}), SizeIs(3));
}

TEST_F(RpcShowTest, AHeadLineThatCannotBeSentIsLoggedAndEndsTheCommand) {
  open_with_users();
  const std::string table_error = "{users} err Error to write table on buffer";
  standin::fail_call("rpc.rpl_printf", 1);
  EXPECT_THAT(trace(SHOW, {"users"}),
              ElementsAre("scan s", "{users} line Table: users", table_error));
  EXPECT_THAT(reply.faults, IsEmpty());
  standin::fail_call("rpc.rpl_printf", 2);
  EXPECT_THAT(trace(SHOW, {"users"}), ElementsAre("scan s", "{users} line Table: users",
                                                  "{users} line Row count: 2", table_error));
  EXPECT_THAT(reply.lines, ElementsAre("Table: users"));
  standin::fail_call("rpc.rpl_printf", 3);
  EXPECT_THAT(
      trace(SHOW, {"users"}),
      ElementsAre("scan s", "{users} line Table: users", "{users} line Row count: 2",
                  "{users} line name|age|city", "{users} err Error to print table on buffer"));
  EXPECT_THAT(reply.faults, IsEmpty());
  standin::fail_call("rpc.rpl_printf", 1);
  EXPECT_THAT(trace(SHOW_P, {"users"}),
              ElementsAre("scan s", "{users} line Table: users", table_error));
  standin::fail_call("rpc.rpl_printf", 2);
  EXPECT_THAT(trace(SHOW_P, {"users"}), ElementsAre("scan s", "{users} line Table: users",
                                                    "{users} line Row count: 2", table_error));
  EXPECT_THAT(reply.faults, IsEmpty());
  EXPECT_THAT(lines(SHOW, {"users"}), SizeIs(3));
}

TEST_F(RpcShowTest, AContainerOrTextThatCannotBeAddedEndsTheRowsWithoutAWord) {
  open_with_users();
  for (const char *command : {SHOW, SHOW_P}) {
    for (const char *operation : {"rpc.add", "rpc.add.container", "rpc.array_add"}) {
      for (int failing = 1; failing <= 2; failing++) {
        standin::fail_call(operation, failing);
        const steps seen = trace(command, {"users"}, DBG_LEVEL);
        const bool text = operation == std::string("rpc.array_add");
        EXPECT_EQ(seen.back().rfind(text ? "{users} text " : "{users} open [", 0), 0u)
            << seen.back();
        EXPECT_THAT(reply.faults, IsEmpty());
        size_t sent = 0;
        for (const standin::rpc_container &container : reply.containers)
          sent += container.texts.size();
        EXPECT_EQ(sent, static_cast<size_t>(failing - 1)) << command << " " << operation;
        trace(command, {"users"});
        EXPECT_THAT(container_texts(), SizeIs(2)) << "the command after it";
      }
    }
  }
}

TEST_F(RpcShowTest, LongRowsAreCutAtTheBuffersEnd) {
  open({{.name = "long", .columns = {{"a", 3000}, {"b", 3000}, {"c"}}}});
  const std::string a(3000, 'a'), b(3000, 'b');
  insert("long," + a + "|" + b + "|c");
  trace(SHOW, {"long"});
  EXPECT_THAT(container_texts(), ElementsAre(a + "|" + b.substr(0, 1094)));
  trace(SHOW_P, {"long"});
  EXPECT_THAT(container_texts(),
              ElementsAre((RULE + "a: \"" + a + "\"\nb: \"" + b).substr(0, 4095)));
}

TEST_F(RpcShowTest, ManyLongColumnNamesAreCutAtTheBuffersEnd) {
  table wide = {.name = "wide", .columns = {}};
  std::string names, values;
  for (int i = 0; i < 200; i++) {
    const std::string name = std::string(27, 'c') + std::to_string(1000 + i);
    wide.columns.push_back({name, 1});
    names += (i > 0 ? "|" : "") + name;
    values += i > 0 ? "|x" : "x";
  }
  open({wide});
  insert("wide," + values);
  EXPECT_EQ(lines(SHOW, {"wide"}).back(), names.substr(0, 4095));
  EXPECT_THAT(container_texts(), ElementsAre(values));
  trace(SHOW_P, {"wide"});
  EXPECT_EQ(container_texts().at(0).size(), 4095u);
}

TEST_F(RpcShowTest, AColumnWhoseNameFoundNoMemoryAtStartHasAnEmptyName) {
  configure({ONE});
  write_file(main_file("one"), table_text({"x"}));
  // Of all allocations of a start, a column's name alone may fail.
  shared_blocks_may_stay = true;
  for (uint64_t n = 1;; n++) {
    standin::fail_at(pool::shm, n);
    if (init() == 0) break;
    unload();
    load();
    configure({ONE});
    ASSERT_LT(n, 50u);
  }
  shared_blocks_may_stay = false;
  EXPECT_EQ(standin::failed_allocations(), 1u);
  reply = standin::rpc_call(SHOW, {"one"});
  EXPECT_THAT(reply.lines, ElementsAre("Table: one", "Row count: 1", ""));
  reply = standin::rpc_call(SHOW_P, {"one"});
  EXPECT_THAT(container_texts(), ElementsAre(RULE + ": \"x\"\n"));
}

TEST_F(RpcShowTest, NoMemoryOfTheModuleIsNeeded) {
  open_with_users();
  standin::fail_from(pool::both, 1);
  for (const char *command : {SHOW, SHOW_P}) {
    trace(command, {"users"});
    EXPECT_THAT(container_texts(), SizeIs(2));
  }
}

TEST_F(RpcShowTest, NothingChanges) {
  open_with_users();
  trace(SHOW, {"users"});
  trace(SHOW_P, {"users"});
  EXPECT_FALSE(store_writes("users"));
  EXPECT_EQ(rows("users"), (row_list{{"alice", "30", "rome"}, {"bob", "", ""}}));
}

}  // namespace
}  // namespace module_test
