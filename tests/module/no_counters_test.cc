// A host that has no counters, and with it the module's import of them unbound.
#include "tests/module/fixture.h"

// Hidden, so that the module isn't bound to it; takes the place of the stand-in's.
extern "C" __attribute__((visibility("hidden"))) int counter_register(counter_handle_t *,
                                                                      const char *, const char *,
                                                                      int, counter_callback, void *,
                                                                      const char *, int) {
  ADD_FAILURE() << "called";
  return 0;
}

namespace module_test {
namespace {

using testing::IsEmpty;

TEST_F(ModuleTest, AHostWithoutCountersIsAsGood) {
  configure({with({"users", {{"name"}}}, 1)});
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(messages(WARN_LEVEL), IsEmpty());
  EXPECT_EQ(run("tarn_memdb_insert", {"users,a"}), 1);
  EXPECT_EQ(run("tarn_memdb_insert", {"users,b"}), -1);
  EXPECT_EQ(run("tarn_memdb_get_port", {"EXT"}), 10000);
  standin::tick();
  EXPECT_EQ(read_file(main_file("users")), table_text({"a"}));
}

}  // namespace
}  // namespace module_test
