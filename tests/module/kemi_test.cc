// The functions for other script languages: which there are, and each beside its native twin.
#include <algorithm>
#include <set>

#include "tests/module/kemi_fixture.h"

namespace module_test {
namespace {

using standin::xavp_items;
using testing::ElementsAre;
using testing::IsEmpty;

class KemiShellTest : public KemiTest {};

TEST_F(KemiShellTest, TwentyFourFunctionsAreOfferedOnceWithTheirKinds) {
  start({});
  ASSERT_EQ(standin::kemi_tables().size(), 1u);
  texts found;
  for (const sr_kemi_t *row = standin::kemi_tables()[0]; row->fname.s != nullptr; row++) {
    EXPECT_EQ(std::string(row->mname.s, static_cast<size_t>(row->mname.len)), "tarn_memdb");
    found.push_back(std::string(row->fname.s, static_cast<size_t>(row->fname.len)) + "(" +
                    standin::kemi_kinds(*row) + ")" +
                    (row->rtype == SR_KEMIP_XVAL  ? " value"
                     : row->rtype == SR_KEMIP_INT ? ""
                                                  : " ?"));
  }
  EXPECT_EQ(found, (texts{"clear_pmap()",
                          "clear_tbl(s)",
                          "insert(s)",
                          "delete(s)",
                          "update(ss)",
                          "row_count(s)",
                          "select(ss)",
                          "nl_select(ss)",
                          "xavp_select(ss)",
                          "nl_xavp_select(ss)",
                          "select_best_match(ssn)",
                          "nl_select_best_match(ssn)",
                          "nl_select_best_match_prefix(ssnn)",
                          "xavp_select_best_match(ssn)",
                          "nl_xavp_select_best_match(ssn)",
                          "nl_select_field_out_of_range(ssnnn)",
                          "nl_select_field_within_the_range(snn)",
                          "nl_select_subnetmask(sssss)",
                          "get_port(s)",
                          "get_port_from_range(sn)",
                          "set_port(ns)",
                          "free_port(sn)",
                          "escape(s) value",
                          "get(sn) value"}));
}

TEST_F(KemiShellTest, TheTableEndsInARowOfNulls) {
  start({});
  const sr_kemi_t *row = standin::kemi_tables().at(0);
  while (row->fname.s != nullptr) row++;
  EXPECT_EQ(row->mname.s, nullptr);
  EXPECT_EQ(row->func.none, nullptr);
  EXPECT_EQ(row->rtype, 0);
}

TEST_F(KemiShellTest, EachRowHasAFunctionOfItsOwn) {
  start({});
  std::set<const void *> functions;
  for (const sr_kemi_t *row = standin::kemi_tables().at(0); row->fname.s != nullptr; row++)
    EXPECT_TRUE(functions.insert(reinterpret_cast<const void *>(row->func.none)).second)
        << row->fname.s;
}

TEST_F(KemiShellTest, AHostThatRefusesTheTableRefusesTheStart) {
  shared_blocks_may_stay = true;
  configure({});
  standin::fail_call("sr_kemi_modules_add", 1);
  EXPECT_EQ(init(), -1);
  EXPECT_THAT(messages(ERR_LEVEL),
              ElementsAre(err("failed to register functions for other script languages\n")));
}

}  // namespace
}  // namespace module_test
