// The module's messages on each of the host's three roads.
#include <syslog.h>
#include <unistd.h>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

using testing::IsEmpty;
using testing::MatchesRegex;

const table USERS = {"users", {{"name"}, {"age"}}, 1, "USR"};
constexpr char PLACE[] = "tarn_memdb \\[[a-z_/]+\\.cpp:[0-9]+\\]: [a-z_0-9]+\\(\\): ";

class LogTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    start({USERS});
  }
  int insert() { return run("tarn_memdb_insert", {"users,alice|30"}); }
};

TEST_F(LogTest, TheStructuredRoadIsToldLevelPlaceAndText) {
  insert();
  insert();
  ASSERT_EQ(standin::log_count(ERR_LEVEL), 2u);
  const standin::log_record refused = standin::logs(ERR_LEVEL).back();
  EXPECT_EQ(refused.text, "INSERT failed!\n");
  EXPECT_EQ(refused.level_name, "ERROR");
  EXPECT_EQ(refused.facility, LOG_DAEMON | LOG_ERR);
  EXPECT_EQ(refused.module, "tarn_memdb");
  EXPECT_THAT(refused.file, MatchesRegex("[a-z_/]+\\.cpp"));
  EXPECT_EQ(refused.location,
            "tarn_memdb [" + refused.file + ":" + std::to_string(refused.line) + "]: ");
  EXPECT_EQ(refused.function, "tarn_memdb_insert");
  EXPECT_EQ(refused.critical, 1) << "the host's mark of a message being written";
  EXPECT_EQ(dprint_crit, 0);
}

TEST_F(LogTest, TheSystemLogGetsPriorityAndPlace) {
  standin::use_log_sink(standin::log_sink::syslog);
  standin::set_facility(LOG_LOCAL3);
  insert();
  insert();
  ASSERT_FALSE(standin::syslog_lines().empty());
  const standin::syslog_record last = standin::syslog_lines().back();
  EXPECT_EQ(last.priority, LOG_LOCAL3 | LOG_ERR);
  EXPECT_THAT(last.text, MatchesRegex(std::string("ERROR: ") + PLACE + "INSERT failed!\n"));
  bool audited = false;
  for (const standin::syslog_record &line : standin::syslog_lines())
    if (line.priority == (LOG_LOCAL3 | LOG_NOTICE)) {
      audited = true;
      EXPECT_THAT(line.text, MatchesRegex(std::string("NOTICE: ") + PLACE +
                                          "           USR - \\(1\\) Inserting users,alice\\|30"));
    }
  EXPECT_TRUE(audited);
  EXPECT_THAT(standin::logs(), IsEmpty());
}

TEST_F(LogTest, ThePrefixOfTheScriptStandsAheadOfThePlace) {
  standin::use_log_sink(standin::log_sink::syslog);
  standin::set_log_prefix("{call 7} ");
  insert();
  EXPECT_THAT(standin::syslog_lines().back().text,
              MatchesRegex(std::string("NOTICE: \\{call 7\\} ") + PLACE + ".*"));
}

TEST_F(LogTest, StandardErrorGetsProcessNumberAndId) {
  insert();
  const standin::command refused = fixup("tarn_memdb_insert", {"users,alice|30"});
  standin::set_debug_level(ERR_LEVEL);
  standin::use_log_sink(standin::log_sink::standard_error);
  standin::set_process_no(7);
  testing::internal::CaptureStderr();
  call(refused);
  const std::string written = testing::internal::GetCapturedStderr();
  const std::string head = " 7\\(" + std::to_string(getpid()) + "\\) ERROR: ";
  EXPECT_THAT(written, MatchesRegex(head + PLACE + "MAX number of rows allowed .*!\n" + head +
                                    PLACE + "INSERT failed!\n"));
}

TEST_F(LogTest, ColoursStandAroundEachLine) {
  insert();
  const standin::command refused = fixup("tarn_memdb_insert", {"users,alice|30"});
  standin::set_debug_level(ERR_LEVEL);
  standin::use_log_sink(standin::log_sink::standard_error);
  standin::set_log_color(true);
  testing::internal::CaptureStderr();
  call(refused);
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_EQ(written.rfind("<color -1> 0(", 0), 0u) << written;
  EXPECT_EQ(written.substr(written.size() - strlen("INSERT failed!\n<color off>")),
            "INSERT failed!\n<color off>");
  EXPECT_EQ(standin::color_calls().size(), 4u);
}

TEST_F(LogTest, AMessageWithinAMessageIsDropped) {
  dprint_crit = 1;
  insert();
  insert();
  dprint_crit = 0;
  EXPECT_THAT(standin::logs(), IsEmpty());
}

TEST_F(LogTest, LevelsAboveTheHostsAreDropped) {
  insert();
  for (const auto &[level, count] : std::vector<std::pair<int, size_t>>{
           {ALERT_LEVEL, 0}, {ERR_LEVEL, 2}, {INFO_LEVEL, 2}, {DBG_LEVEL, 3}}) {
    const standin::command refused = fixup("tarn_memdb_insert", {"users,alice|30"});
    standin::clear_logs();
    standin::set_debug_level(level);
    call(refused);
    EXPECT_EQ(standin::logs().size(), count) << level;
  }
}

TEST_F(LogTest, FormatCharactersInValuesAreText) {
  standin::clear_logs();
  standin::set_value(msg, "$fU", "%s%n%d");
  run("tarn_memdb_insert", {"users,$fU|%s"});
  EXPECT_TRUE(standin::logged(DBG_LEVEL, "Insert: users,%s%n%d|%s\n"));
  EXPECT_TRUE(standin::logged(NOTICE_LEVEL, "           USR - (1) Inserting users,%s%n%d|%s"));
  run("tarn_memdb_delete", {"users,*|*"});
  EXPECT_TRUE(standin::logged(NOTICE_LEVEL, "           USR - (0) Deleting users,%s%n%d|%s"));
}

}  // namespace
}  // namespace module_test
