#include "tests/standin/module.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "tests/standin/file_faults.h"
#include "tests/standin/standin.h"

namespace standin {
namespace {

class ModuleTest : public testing::Test {
 protected:
  void SetUp() override {
    reset();
    std::string error;
    sample = load_module(SAMPLE_MODULE, &error);
    ASSERT_NE(sample, nullptr) << error;
  }
  void TearDown() override {
    sample.reset();
    reset();
  }

  std::unique_ptr<loaded_module> sample;
  sip_msg msg;
};

TEST_F(ModuleTest, AFileThatIsNoModuleIsRefusedWithAnExplanation) {
  std::string error;
  EXPECT_EQ(load_module("/nonexistent.so", &error), nullptr);
  EXPECT_NE(error.find("nonexistent"), std::string::npos);
}

TEST_F(ModuleTest, ExportsAndPublicSymbolsAreFound) {
  EXPECT_STREQ(sample->exports().name, "sample");
  const char **version = sample->symbol<const char *>("sample_version");
  ASSERT_NE(version, nullptr);
  EXPECT_STREQ(*version, "sample 1");
  EXPECT_EQ(sample->symbol<int>("nothing_of_that_name"), nullptr);
}

TEST_F(ModuleTest, AReloadedModuleStartsWithFreshStaticData) {
  EXPECT_EQ(sample->run("sample_count", {}, msg), 1);
  EXPECT_EQ(sample->run("sample_count", {}, msg), 2);
  EXPECT_TRUE(sample->unload());
  EXPECT_FALSE(sample->unload());
  sample = load_module(SAMPLE_MODULE);
  ASSERT_NE(sample, nullptr);
  EXPECT_EQ(sample->run("sample_count", {}, msg), 1);
}

TEST_F(ModuleTest, ParametersAreSetByNameAndType) {
  EXPECT_TRUE(sample->set_param("limit", 12));
  EXPECT_TRUE(sample->set_param("title", "hello"));
  EXPECT_FALSE(sample->set_param("limit", "12"));
  EXPECT_FALSE(sample->set_param("title", 1));
  EXPECT_FALSE(sample->set_param("none", 1));
  EXPECT_EQ(live_blocks(pool::pkg, "core").size(), 1u);
  ASSERT_EQ(sample->init(), 0);
  EXPECT_EQ(rpc_call("sample.title").lines, std::vector<std::string>{"hello 12"});
}

TEST_F(ModuleTest, TheLifeCycleRunsThroughTheExports) {
  sample->set_param("limit", -1);
  EXPECT_EQ(sample->init(), -1);
  sample->set_param("limit", 1);
  EXPECT_EQ(sample->init(), 0);
  EXPECT_EQ(sample->child_init(1), 0);
  EXPECT_EQ(sample->child_init(3), -1);
  ASSERT_EQ(timers().size(), 1u);
  tick(5);
  EXPECT_EQ(*static_cast<int *>(timers()[0].param), 5);
  sample->destroy();
  EXPECT_EQ(_ksr_slog_func, nullptr);
}

TEST_F(ModuleTest, BlocksKeepTheirPlacesWhenTheImageIsGone) {
  sample->init();
  sample->unload();
  EXPECT_EQ(leak_report(pool::shm), "24 bytes by sample at sample_module.cpp:77 init\n");
}

TEST_F(ModuleTest, AFixupIsCalledOncePerParameterWithItsNumber) {
  const command call = sample->fixup("sample_digits", {"1", "2", "3"});
  EXPECT_TRUE(call.accepted());
  EXPECT_EQ(call.results(), (std::vector<int>{0, 0, 0}));
  EXPECT_TRUE(call.slot(1).untouched());
  EXPECT_EQ(live_count(pool::pkg), 3u);
}

TEST_F(ModuleTest, ATextThatIsNotWholeInTheSourceIsAMisuse) {
  use_log_sink(log_sink::structured);
  EXPECT_EQ(sample->run("sample_say", {"v", "alice"}, msg), 1);
  EXPECT_EQ(misuses(), std::vector<std::string>{});
  EXPECT_EQ(sample->run("sample_say", {"p", ""}, msg), 1);
  EXPECT_EQ(sample->run("sample_say", {"b", "alice"}, msg), 1);
  EXPECT_EQ(misuses(), (std::vector<std::string>{
                           "a text put together: 'the sample's own piece' in '%d, and %s\n'",
                           "a text that isn't its own format: alice"}));
}

TEST_F(ModuleTest, TheFirstFailingFixupEndsTheScript) {
  const command call = sample->fixup("sample_digits", {"1", "refuse", "3"});
  EXPECT_FALSE(call.accepted());
  EXPECT_EQ(call.results(), (std::vector<int>{0, -2}));
  EXPECT_THROW(sample->run(call, msg), std::logic_error);
}

TEST_F(ModuleTest, FunctionsAreFoundByNameAndNumberOfParameters) {
  EXPECT_EQ(sample->fixup("sample_digits", {"1"}).row()->param_no, 1);
  EXPECT_EQ(sample->fixup("sample_digits", {"1", "2"}).row()->param_no, 2);
  EXPECT_FALSE(sample->fixup("sample_print", {}).accepted());
  EXPECT_EQ(sample->fixup("none", {"1"}).row(), nullptr);
  EXPECT_THROW(sample->run("none", {"1"}, msg), std::logic_error);
}

TEST_F(ModuleTest, FunctionsRunWithOneToSixParameters) {
  const std::vector<std::string> digits = {"1", "2", "3", "4", "5", "6"};
  int expected = 0;
  for (size_t n = 1; n <= 6; ++n) {
    expected = expected * 10 + static_cast<int>(n);
    EXPECT_EQ(
        sample->run("sample_digits", {digits.begin(), digits.begin() + static_cast<long>(n)}, msg),
        expected);
  }
}

TEST_F(ModuleTest, APreparedCallPrintsForEachMessage) {
  const command call = sample->fixup("sample_print", {"to $tU"});
  ASSERT_TRUE(call.accepted());
  EXPECT_FALSE(call.slot(1).untouched());
  set_value(msg, "$tU", "carol");
  EXPECT_EQ(sample->run(call, msg), 8);
  set_value(msg, "$tU", "dave");
  EXPECT_EQ(sample->run(call, msg), 7);
  EXPECT_EQ(avp("printed"), (std::vector<value>{"to dave", "to carol"}));
  fail_call("add_avp", 1);
  EXPECT_EQ(sample->run(call, msg), -1);
}

TEST_F(ModuleTest, ExpressionsAreFixedUpAtEachCallAndFreedAfterIt) {
  const command call = sample->fixup_with_expressions("sample_join", {std::nullopt, "3"});
  ASSERT_TRUE(call.accepted());
  EXPECT_EQ(call.results(), std::vector<int>{0});
  EXPECT_THROW(sample->run(call, msg), std::logic_error);
  const size_t blocks = live_count(pool::pkg);
  EXPECT_EQ(sample->run_expressions(call, {"ab"}, msg), 23);
  EXPECT_EQ(sample->run_expressions(call, {"abcd"}, msg), 43);
  EXPECT_EQ(live_count(pool::pkg), blocks);
  EXPECT_EQ(calls("fixup_free_spve_spve"), 2);
}

TEST_F(ModuleTest, ASlotThatTheFixupLeftIsNotForTheFreeFixupOfExpressions) {
  const command call = sample->fixup_with_expressions("sample_join", {"abc", std::nullopt});
  const size_t blocks = live_count(pool::pkg);
  EXPECT_EQ(sample->run_expressions(call, {"7"}, msg), 37);
  EXPECT_EQ(live_count(pool::pkg), blocks);
  EXPECT_EQ(calls("fixup_free_spve_spve"), 0);
}

TEST_F(ModuleTest, ARefusedExpressionFailsTheCallAndLosesItsText) {
  const command call = sample->fixup_with_expressions("sample_join", {std::nullopt, std::nullopt});
  EXPECT_EQ(sample->run_expressions(call, {"ab", "refuse"}, msg), -1);
  ASSERT_EQ(live_blocks(pool::pkg).size(), 1u);
  EXPECT_STREQ(static_cast<const char *>(live_blocks(pool::pkg)[0].address), "refuse");
}

TEST_F(ModuleTest, LuaGivesEverySlotToTheFreeFixup) {
  using language = loaded_module::language;
  EXPECT_EQ(sample->run_modf(language::lua, "sample_join", {"ab", "3"}, msg), 23);
  EXPECT_EQ(live_count(pool::pkg), 0u);
  EXPECT_EQ(calls("fixup_free_spve_spve"), 2);
  EXPECT_EQ(sample->run_modf(language::lua, "sample_join", {"ab", "refuse"}, msg), -1);
  EXPECT_EQ(live_count(pool::pkg), 1u);  // the record of the first
  EXPECT_THROW(sample->run_modf(language::lua, "sample_print", {"a"}, msg), std::logic_error);
}

TEST_F(ModuleTest, PythonFreesWhatIsInTheSlots) {
  using language = loaded_module::language;
  EXPECT_EQ(sample->run_modf(language::python, "sample_join", {"abc"}, msg), 3);
  EXPECT_EQ(live_count(pool::pkg), 0u);
  EXPECT_TRUE(memory_errors().empty());
  // A text of its own, where the fix-up has left the slot.
  EXPECT_EQ(sample->run_modf(language::python, "sample_join", {"abc", "3"}, msg), 33);
  EXPECT_EQ(memory_errors().size(), 1u);
  clear_memory_errors();
}

TEST_F(ModuleTest, ALinkedInModuleIsDrivenTheSameWay) {
  const loaded_module linked(sample->exports());
  EXPECT_EQ(linked.run("sample_digits", {"4", "2"}, msg), 42);
}

class FileTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    std::string dir = testing::TempDir() + "standin_XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    base = dir + "/";
    watch_files(base);
    write = reinterpret_cast<int (*)(const char *)>(
        reinterpret_cast<void (*)()>(sample->symbol<void>("sample_write")));
  }
  void TearDown() override {
    watch_files("");
    const std::string command = "rm -rf " + base;
    EXPECT_EQ(system(command.c_str()), 0);
    ModuleTest::TearDown();
  }

  static std::string contents(const std::string &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  std::string base;
  int (*write)(const char *) = nullptr;
};

TEST_F(FileTest, FileOperationsOfAnOpenedModuleAreCounted) {
  EXPECT_EQ(write((base + "f").c_str()), 0);
  EXPECT_EQ(file_ops("fopen"), 1);
  EXPECT_EQ(file_ops("fprintf"), 1);
  EXPECT_EQ(file_ops("write"), 3);
  EXPECT_EQ(file_ops("fflush"), 1);
  EXPECT_EQ(file_ops("fclose"), 1);
  EXPECT_EQ(file_ops("any"), 6);
  EXPECT_EQ(file_history().front(), "fopen " + base + "f");
  EXPECT_EQ(open_streams(), 0);
  EXPECT_EQ(contents(base + "f"), "row 7\ntext\ndata\n");
}

TEST_F(FileTest, EachOperationOfAnOpenedModuleFailsInTurn) {
  for (int n = 1; n <= 6; ++n) {
    fail_file_op("any", n, ENOSPC);
    EXPECT_EQ(write((base + "f").c_str()), n);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(open_streams(), 0);
    watch_files(base);
  }
}

TEST_F(FileTest, WritesCanAllFailFromOneOn) {
  fail_file_ops_from("write", 2, EIO);
  EXPECT_EQ(write((base + "f").c_str()), 3);
  EXPECT_EQ(write((base + "f").c_str()), 2);
  stop_failing_files();
  EXPECT_EQ(write((base + "f").c_str()), 0);
}

TEST_F(FileTest, PathsOutsideOfThePrefixAreLeftAlone) {
  const std::string inner = base;
  watch_files(base + "inner/");
  fail_file_ops_from("any", 1, EIO);
  EXPECT_EQ(write((inner + "f").c_str()), 0);
  EXPECT_EQ(file_ops("any"), 0);
}

TEST_F(FileTest, AFailedOpenLeavesTheFileAsItWas) {
  EXPECT_EQ(write((base + "f").c_str()), 0);
  fail_file_op("fopen", 1, EACCES);
  EXPECT_EQ(write((base + "f").c_str()), 1);
  EXPECT_EQ(contents(base + "f"), "row 7\ntext\ndata\n");
}

TEST_F(FileTest, AFailedCloseClosesAndLosesWhatWasBuffered) {
  FILE *out = fopen((base + "g").c_str(), "w");
  ASSERT_NE(out, nullptr);
  fputs("lost", out);
  EXPECT_EQ(open_streams(), 1);
  fail_file_op("fclose", 1, EIO);
  EXPECT_EQ(fclose(out), EOF);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(open_streams(), 0);
  EXPECT_EQ(contents(base + "g"), "");
}

TEST_F(FileTest, AFailedReadSetsTheErrorMarkAndAnEndedOneDoesNot) {
  ASSERT_EQ(write((base + "f").c_str()), 0);
  FILE *in = fopen((base + "f").c_str(), "r");
  char *line = nullptr;
  size_t size = 0;
  EXPECT_EQ(getline(&line, &size, in), 6);
  fail_file_op("getline", 1, EIO);
  EXPECT_EQ(getline(&line, &size, in), -1);
  EXPECT_NE(ferror(in), 0);
  EXPECT_EQ(feof(in), 0);
  clearerr(in);
  EXPECT_EQ(getline(&line, &size, in), 5);
  EXPECT_EQ(getline(&line, &size, in), 5);
  EXPECT_EQ(getline(&line, &size, in), -1);
  EXPECT_EQ(ferror(in), 0);
  EXPECT_NE(feof(in), 0);
  EXPECT_EQ(file_ops("getline"), 5);
  free(line);
  fclose(in);
}

TEST_F(FileTest, OperationsOnPathsFailAndDoNothing) {
  ASSERT_EQ(write((base + "f").c_str()), 0);
  const std::string from = base + "f", to = base + "h";
  for (const char *op : {"rename", "remove", "unlink", "access"}) fail_file_op(op, 1, EPERM);
  EXPECT_EQ(rename(from.c_str(), to.c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(remove(from.c_str()), -1);
  EXPECT_EQ(unlink(from.c_str()), -1);
  EXPECT_EQ(access(from.c_str(), R_OK), -1);
  EXPECT_EQ(access(from.c_str(), R_OK), 0);
  EXPECT_EQ(rename(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(contents(to), "row 7\ntext\ndata\n");
  EXPECT_EQ(remove(to.c_str()), 0);
  EXPECT_EQ(file_ops("rename"), 2);
}

}  // namespace
}  // namespace standin
