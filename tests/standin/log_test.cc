#include "tests/standin/log.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include "host/imports.h"
#include "tests/standin/standin.h"

namespace standin {
namespace {

class LogTest : public testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static void write(int level, const char *text, int number) {
    ksr_logdata_t data{};
    data.v_level = level;
    data.v_lname = log_level_info[level + LOG_LEVEL_OFFSET].name;
    data.v_fname = "file.c";
    data.v_fline = 12;
    data.v_mname = "mod";
    data.v_func = "work";
    data.v_locinfo = "mod [file.c:12]: ";
    _ksr_slog_func(&data, "%s %d\n", text, number);
  }
};

TEST_F(LogTest, CatchesStructuredMessagesWithTheirRecord) {
  dprint_crit = 1;
  write(L_ERR, "broken", 5);
  dprint_crit = 0;
  write(L_DBG, "detail", 6);
  ASSERT_EQ(logs().size(), 2u);
  EXPECT_EQ(logs()[0].text, "broken 5\n");
  EXPECT_EQ(logs()[0].file, "file.c");
  EXPECT_EQ(logs()[0].line, 12);
  EXPECT_EQ(logs()[0].function, "work");
  EXPECT_EQ(logs()[0].module, "mod");
  EXPECT_EQ(logs()[0].critical, 1);
  EXPECT_EQ(logs()[1].critical, 0);
}

TEST_F(LogTest, AnswersByLevelAndText) {
  write(L_ERR, "broken", 5);
  write(L_DBG, "detail", 6);
  write(L_DBG, "detail", 7);
  EXPECT_EQ(log_count(L_DBG), 2u);
  EXPECT_EQ(log_texts(L_ERR), std::vector<std::string>{"broken 5\n"});
  EXPECT_TRUE(logged(L_DBG, "detail 7\n"));
  EXPECT_FALSE(logged(L_ERR, "detail 7\n"));
  EXPECT_TRUE(log_contains(L_DBG, "ail 6"));
  EXPECT_EQ(log_dump(), "ERROR work: broken 5\nDEBUG work: detail 6\nDEBUG work: detail 7\n");
  clear_logs();
  EXPECT_TRUE(logs().empty());
}

TEST_F(LogTest, LevelNamesAndPrioritiesAreTheHosts) {
  const std::pair<const char *, int> expected[] = {
      {"ALERT", LOG_ALERT},   {"BUG", LOG_CRIT},  {"CRITICAL", LOG_CRIT},
      {"", LOG_CRIT},         {"ERROR", LOG_ERR}, {"WARNING", LOG_WARNING},
      {"NOTICE", LOG_NOTICE}, {"INFO", LOG_INFO}, {"DEBUG", LOG_DEBUG}};
  for (int i = 0; i < 9; ++i) {
    EXPECT_STREQ(log_level_info[i].name, expected[i].first) << i;
    EXPECT_EQ(log_level_info[i].syslog_level, expected[i].second) << i;
  }
}

TEST_F(LogTest, CountsQueriesOfTheDebugLevel) {
  EXPECT_EQ(get_debug_level("mod", 3), L_DBG);
  set_debug_level(L_WARN);
  EXPECT_EQ(get_debug_level("mod", 3), L_WARN);
  EXPECT_EQ(debug_level_queries(), 2);
}

TEST_F(LogTest, TheSyslogSinkKeepsPriorityAndWholeLine) {
  use_log_sink(log_sink::syslog);
  EXPECT_EQ(_ksr_slog_func, nullptr);
  EXPECT_EQ(log_stderr, 0);
  _km_log_func(LOG_ERR | LOG_DAEMON, "%s: %d\n", "ERROR", 3);
  ASSERT_EQ(syslog_lines().size(), 1u);
  EXPECT_EQ(syslog_lines()[0].priority, LOG_ERR | LOG_DAEMON);
  EXPECT_EQ(syslog_lines()[0].text, "ERROR: 3\n");
}

TEST_F(LogTest, TheStderrSinkShowsWhereTheColoursWere) {
  use_log_sink(log_sink::standard_error);
  EXPECT_EQ(_ksr_slog_func, nullptr);
  EXPECT_NE(log_stderr, 0);
  testing::internal::CaptureStderr();
  dprint_color(L_ERR);
  fputs("text", stderr);
  dprint_color_reset();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "<color -1>text<color off>");
  ASSERT_EQ(color_calls().size(), 2u);
  EXPECT_EQ(color_calls()[0].level, L_ERR);
  EXPECT_TRUE(color_calls()[1].reset);
}

TEST_F(LogTest, PrefixColourProcessAndFacilityAreTheTestsToSet) {
  set_log_prefix("{1} ");
  ASSERT_NE(log_prefix_val, nullptr);
  EXPECT_EQ(std::string(log_prefix_val->s, static_cast<size_t>(log_prefix_val->len)), "{1} ");
  clear_log_prefix();
  EXPECT_EQ(log_prefix_val, nullptr);
  set_log_color(true);
  EXPECT_NE(log_color, 0);
  set_process_no(4);
  EXPECT_EQ(process_no, 4);
  EXPECT_EQ(my_pid(), getpid());
  EXPECT_EQ(get_debug_facility("mod", 3), LOG_DAEMON);
  set_facility(LOG_LOCAL2);
  EXPECT_EQ(get_debug_facility("mod", 3), LOG_LOCAL2);
}

}  // namespace
}  // namespace standin
