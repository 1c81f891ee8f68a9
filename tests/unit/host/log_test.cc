// The log macros: which messages pass, what each of the host's three sinks is given, and that the
// host is asked and marked as its own macros do it.
#include "host/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <utility>

#include "tests/standin/standin.h"

namespace {

using standin::log_sink;
using testing::ElementsAre;
using testing::IsEmpty;

struct level_row {
  int level;
  const char *name;
  int priority;
};
constexpr level_row LEVELS[] = {{L_CRIT, "CRITICAL", LOG_CRIT},   {L_ERR, "ERROR", LOG_ERR},
                                {L_WARN, "WARNING", LOG_WARNING}, {L_NOTICE, "NOTICE", LOG_NOTICE},
                                {L_INFO, "INFO", LOG_INFO},       {L_DBG, "DEBUG", LOG_DEBUG}};

// One message of the level, from one place; gives its line.
int log_at(int level, int number) {
  switch (level) {
    case L_CRIT:
      LM_CRIT("number %d\n", number);
      return __LINE__ - 1;
    case L_ERR:
      LM_ERR("number %d\n", number);
      return __LINE__ - 1;
    case L_WARN:
      LM_WARN("number %d\n", number);
      return __LINE__ - 1;
    case L_NOTICE:
      LM_NOTICE("number %d\n", number);
      return __LINE__ - 1;
    case L_INFO:
      LM_INFO("number %d\n", number);
      return __LINE__ - 1;
    default:
      LM_DBG("number %d\n", number);
      return __LINE__ - 1;
  }
}

std::string place(int line) {
  return "tarn_memdb [" + std::string(__FILE__) + ":" + std::to_string(line) + "]: ";
}

// A stderr that keeps each piece as it is written, and the host's mark at that time.
class caught_stderr {
 public:
  caught_stderr() : before_(stderr) {
    cookie_io_functions_t functions{};
    functions.write = [](void *self, const char *bytes, size_t size) -> ssize_t {
      auto &mine = *static_cast<caught_stderr *>(self);
      mine.pieces.emplace_back(bytes, size);
      mine.marks.push_back(int{dprint_crit});
      return static_cast<ssize_t>(size);
    };
    stderr = fopencookie(this, "w", functions);
    setvbuf(stderr, nullptr, _IONBF, 0);
  }
  ~caught_stderr() {
    fclose(stderr);
    stderr = before_;
  }
  caught_stderr(const caught_stderr &) = delete;
  caught_stderr &operator=(const caught_stderr &) = delete;

  std::vector<std::string> pieces;
  std::vector<int> marks;

 private:
  FILE *before_;
};

// Sinks that stand in the place of the stand-in's own for a while.
decltype(_km_log_func) caught_syslog;
std::vector<int> marks_at_syslog;

void note_mark(int, const char *, ...) { marks_at_syslog.push_back(int{dprint_crit}); }

void log_in_a_signal(int) { LM_ERR("from the handler\n"); }

void raise_and_pass_on(int priority, const char *, ...) {
  raise(SIGUSR1);
  caught_syslog(priority, "outer");
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    standin::reset();
    marks_at_syslog.clear();
  }
  void TearDown() override {
    EXPECT_EQ(dprint_crit, 0);
    EXPECT_EQ(host_log_level_held, LOG_LEVEL_UNKNOWN);
    standin::reset();
  }

  static std::string head(const char *level_name, const std::string &prefix, int line,
                          const char *function) {
    char start[64];
    snprintf(start, sizeof(start), "%2d(%d) ", process_no, getpid());
    return start + classic(level_name, prefix, line, function);
  }
  static std::string classic(const char *level_name, const std::string &prefix, int line,
                             const char *function) {
    return std::string(level_name) + ": " + prefix + place(line) + function + "(): ";
  }
};

TEST_F(LogTest, MessagesUpToTheHostsLevelPass) {
  for (int host_level = -4; host_level <= L_DBG; ++host_level) {
    standin::set_debug_level(host_level);
    for (const level_row &row : LEVELS) {
      standin::clear_logs();
      log_at(row.level, 1);
      EXPECT_EQ(standin::logs().size(), row.level <= host_level ? 1u : 0u)
          << row.name << " at " << host_level;
      EXPECT_EQ(host_log_enabled(row.level), row.level <= host_level);
    }
  }
}

TEST_F(LogTest, StructuredSinkGetsOneRecordWithFormatAndPlace) {
  standin::set_facility(LOG_LOCAL3);
  for (const level_row &row : LEVELS) {
    standin::clear_logs();
    const int line = log_at(row.level, 42);
    ASSERT_EQ(standin::logs().size(), 1u);
    const standin::log_record &record = standin::logs()[0];
    EXPECT_EQ(record.level, row.level);
    EXPECT_EQ(record.level_name, row.name);
    EXPECT_EQ(record.facility, row.priority | LOG_LOCAL3);
    EXPECT_EQ(record.file, __FILE__);
    EXPECT_EQ(record.line, line);
    EXPECT_EQ(record.module, "tarn_memdb");
    EXPECT_EQ(record.function, "log_at");
    EXPECT_EQ(record.location, place(line));
    EXPECT_EQ(record.text, "number 42\n");
    EXPECT_EQ(record.critical, 1);
  }
  EXPECT_THAT(standin::syslog_lines(), IsEmpty());
}

TEST_F(LogTest, StructuredSinkComesBeforeStderr) {
  log_stderr = 1;
  const caught_stderr caught;
  LM_ERR("for the structured sink\n");
  EXPECT_EQ(standin::logs().size(), 1u);
  EXPECT_THAT(caught.pieces, IsEmpty());
}

TEST_F(LogTest, StderrGetsEachLineInOnePiece) {
  standin::use_log_sink(log_sink::standard_error);
  standin::set_process_no(7);
  for (const level_row &row : LEVELS) {
    const caught_stderr caught;
    const int line = log_at(row.level, 42);
    EXPECT_THAT(caught.pieces, ElementsAre(head(row.name, "", line, "log_at") + "number 42\n"));
    EXPECT_THAT(caught.marks, ElementsAre(1));
  }
  EXPECT_THAT(standin::logs(), IsEmpty());
  EXPECT_THAT(standin::syslog_lines(), IsEmpty());
  EXPECT_THAT(standin::color_calls(), IsEmpty());
}

TEST_F(LogTest, StderrLineBeginsWithTheProcessInTwoPlaces) {
  standin::use_log_sink(log_sink::standard_error);
  for (const auto &[number, shown] :
       {std::pair(0, " 0("), std::pair(9, " 9("), std::pair(42, "42("), std::pair(123, "123(")}) {
    standin::set_process_no(number);
    const caught_stderr caught;
    LM_INFO("x");
    ASSERT_EQ(caught.pieces.size(), 1u);
    EXPECT_EQ(caught.pieces[0].rfind(shown + std::to_string(getpid()) + ") INFO: ", 0), 0u)
        << caught.pieces[0];
  }
}

TEST_F(LogTest, StderrLineHasThePrefixBehindTheLevel) {
  standin::use_log_sink(log_sink::standard_error);
  standin::set_log_prefix("{1 INVITE} ");
  const caught_stderr caught;
  const int line = log_at(L_WARN, 5);
  EXPECT_THAT(caught.pieces,
              ElementsAre(head("WARNING", "{1 INVITE} ", line, "log_at") + "number 5\n"));
}

TEST_F(LogTest, PrefixIsCountedAndNeedsNoTerminator) {
  standin::use_log_sink(log_sink::syslog);
  char text[] = {'a', 'b', 'c', 'd'};
  str prefix{text, 2};
  log_prefix_val = &prefix;
  const int line = log_at(L_ERR, 5);
  ASSERT_EQ(standin::syslog_lines().size(), 1u);
  EXPECT_EQ(standin::syslog_lines()[0].text, classic("ERROR", "ab", line, "log_at") + "number 5\n");
}

TEST_F(LogTest, ColourStandsAroundTheLine) {
  standin::use_log_sink(log_sink::standard_error);
  standin::set_log_color(true);
  for (const level_row &row : LEVELS) {
    standin::clear_logs();
    const caught_stderr caught;
    const int line = log_at(row.level, 1);
    std::string all;
    for (const std::string &piece : caught.pieces) all += piece;
    EXPECT_EQ(all, "<color " + std::to_string(row.level) + ">" +
                       head(row.name, "", line, "log_at") + "number 1\n<color off>");
    ASSERT_EQ(standin::color_calls().size(), 2u);
    EXPECT_FALSE(standin::color_calls()[0].reset);
    EXPECT_EQ(standin::color_calls()[0].level, row.level);
    EXPECT_TRUE(standin::color_calls()[1].reset);
    for (const int mark : caught.marks) EXPECT_EQ(mark, 1);
  }
}

TEST_F(LogTest, ColourIsForStderrAlone) {
  standin::set_log_color(true);
  LM_ERR("structured\n");
  standin::use_log_sink(log_sink::syslog);
  LM_ERR("syslog\n");
  EXPECT_THAT(standin::color_calls(), IsEmpty());
}

TEST_F(LogTest, SyslogGetsPriorityWithFacilityAndTheLineInOneCall) {
  standin::use_log_sink(log_sink::syslog);
  standin::set_facility(LOG_LOCAL5);
  standin::set_log_prefix("[p] ");
  for (const level_row &row : LEVELS) {
    standin::clear_logs();
    const int line = log_at(row.level, 42);
    ASSERT_EQ(standin::syslog_lines().size(), 1u);
    EXPECT_EQ(standin::syslog_lines()[0].priority, row.priority | LOG_LOCAL5);
    EXPECT_EQ(standin::syslog_lines()[0].text,
              classic(row.name, "[p] ", line, "log_at") + "number 42\n");
  }
  EXPECT_THAT(standin::logs(), IsEmpty());
}

TEST_F(LogTest, SyslogIsCalledUnderTheHostsMark) {
  standin::use_log_sink(log_sink::syslog);
  caught_syslog = std::exchange(_km_log_func, note_mark);
  LM_ERR("x");
  _km_log_func = caught_syslog;
  EXPECT_THAT(marks_at_syslog, ElementsAre(1));
}

TEST_F(LogTest, MarkOfAnotherMessageDropsThisOneWithoutAskingTheHost) {
  for (const log_sink sink : {log_sink::structured, log_sink::standard_error, log_sink::syslog}) {
    standin::use_log_sink(sink);
    standin::reset_calls();
    const caught_stderr caught;
    int evaluated = 0;
    dprint_crit = 1;
    LM_CRIT("%d", ++evaluated);
    LM_DBG("%d", ++evaluated);
    EXPECT_EQ(dprint_crit, 1);
    dprint_crit = 0;
    EXPECT_EQ(evaluated, 0);
    EXPECT_THAT(caught.pieces, IsEmpty());
    EXPECT_EQ(standin::debug_level_queries(), 0);
  }
  EXPECT_THAT(standin::logs(), IsEmpty());
  EXPECT_THAT(standin::syslog_lines(), IsEmpty());
}

TEST_F(LogTest, MessageOfASignalThatMeetsAMessageIsDropped) {
  standin::use_log_sink(log_sink::syslog);
  auto *const before_handler = signal(SIGUSR1, log_in_a_signal);
  caught_syslog = std::exchange(_km_log_func, raise_and_pass_on);
  LM_ERR("outer");
  _km_log_func = caught_syslog;
  signal(SIGUSR1, before_handler);
  ASSERT_EQ(standin::syslog_lines().size(), 1u);
  EXPECT_EQ(standin::syslog_lines()[0].text, "outer");
}

TEST_F(LogTest, ArgumentsAreEvaluatedOnceWhenTheLevelIsOnAndNeverWhenItIsOff) {
  for (const log_sink sink : {log_sink::structured, log_sink::standard_error, log_sink::syslog}) {
    standin::use_log_sink(sink);
    const caught_stderr caught;
    int evaluated = 0;
    standin::set_debug_level(L_INFO);
    LM_DBG("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    LM_INFO("%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
  }
}

TEST_F(LogTest, FormatWithoutArgumentsPasses) {
  LM_ERR("100%% of \"it\"");
  EXPECT_THAT(standin::log_texts(), ElementsAre("100% of \"it\""));
}

TEST_F(LogTest, MacroIsOneStatement) {
  if (dprint_crit == 0)
    LM_INFO("then");
  else
    LM_INFO("else");
  EXPECT_THAT(standin::log_texts(), ElementsAre("then"));
}

TEST_F(LogTest, MessageCanBeWrittenForAnotherPlace) {
  HOST_LOG_AT(L_WARN, "elsewhere.cpp", 77, "other", "text %s", "it");
  ASSERT_EQ(standin::logs().size(), 1u);
  const standin::log_record &record = standin::logs()[0];
  EXPECT_EQ(record.file, "elsewhere.cpp");
  EXPECT_EQ(record.line, 77);
  EXPECT_EQ(record.function, "other");
  EXPECT_EQ(record.location, "tarn_memdb [elsewhere.cpp:77]: ");
  EXPECT_EQ(record.text, "text it");
}

TEST_F(LogTest, LocationOfAnEndlessPathIsCutWithinItsRoom) {
  const std::string path(1000, 'p');
  HOST_LOG_AT(L_ERR, path.c_str(), 1, "f", "x");
  ASSERT_EQ(standin::logs().size(), 1u);
  EXPECT_EQ(standin::logs()[0].file, path);
  EXPECT_EQ(standin::logs()[0].location.size(), sizeof(host_log_record::location) - 1);
}

TEST_F(LogTest, HostIsAskedOncePerMessageOutsideAScope) {
  standin::set_debug_level(L_INFO);
  for (int i = 0; i < 10; ++i) LM_DBG("off\n");
  EXPECT_EQ(standin::debug_level_queries(), 10);
  for (int i = 0; i < 10; ++i) LM_INFO("on\n");
  EXPECT_EQ(standin::debug_level_queries(), 20);
}

TEST_F(LogTest, ScopeAsksTheHostOnceForAllThatIsLoggedInIt) {
  {
    const host_log_scope scope;
    EXPECT_EQ(standin::debug_level_queries(), 1);
    for (int i = 0; i < 1000; ++i) log_at(L_DBG, i);
    standin::set_debug_level(L_ERR);
    LM_INFO("still on\n");
    EXPECT_EQ(standin::debug_level_queries(), 1);
    EXPECT_EQ(standin::logs().size(), 1001u);
  }
  LM_INFO("off\n");
  EXPECT_EQ(standin::debug_level_queries(), 2);
  EXPECT_EQ(standin::logs().size(), 1001u);
}

TEST_F(LogTest, ScopesNestAndTheOutermostAsks) {
  {
    const host_log_scope outer;
    {
      standin::set_debug_level(L_ERR);
      const host_log_scope inner;
      LM_DBG("as the outer scope asked\n");
    }
    LM_DBG("the same behind the inner scope\n");
  }
  EXPECT_EQ(standin::debug_level_queries(), 1);
  EXPECT_EQ(standin::logs().size(), 2u);
  LM_DBG("off\n");
  EXPECT_EQ(standin::logs().size(), 2u);
}

TEST_F(LogTest, ScopeHoldsEveryLevelThatAHostCanHave) {
  for (const int level : {-5, -3, -1, 0, 3, 9}) {
    standin::set_debug_level(level);
    standin::reset_calls();
    const host_log_scope scope;
    EXPECT_EQ(host_log_level(), level);
    EXPECT_EQ(host_log_level(), level);
    EXPECT_EQ(standin::debug_level_queries(), 1);
  }
}

TEST_F(LogTest, MessagesNeedNoMemoryOfTheHost) {
  standin::reset_allocation_count();
  for (const level_row &row : LEVELS) log_at(row.level, 1);
  EXPECT_EQ(standin::allocation_count(standin::pool::both), 0u);
}

}  // namespace
