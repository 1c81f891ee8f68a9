// Taking, counting, releasing and finding ports, one rule at a time. What each operation logs is
// compared word by word in the model's test.
#include "ports/port_allocation.h"

#include "tests/unit/ports/port_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;

class PortAllocationTest : public PortTest {
 protected:
  void SetUp() override {
    PortTest::SetUp();
    restart("");
  }

  void restart(const std::string &ranges) {
    start(ranges);
    m = port_m_int;
  }

  // What an ordinary allocation does: take the port that the pointer stands on.
  int32_t allocate() const {
    const int32_t port = m->next_free_port;
    EXPECT_EQ(set_port(m, port), port_result::done);
    return port;
  }

  // The same as long as there are ports.
  std::vector<int32_t> allocate_all() const {
    std::vector<int32_t> out;
    while (m->next_free_port != NO_PORT) out.push_back(allocate());
    return out;
  }

  // What a row does.
  void hold(int32_t port, int times = 1) const {
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ(set_port(m, port), port_result::done);
      EXPECT_EQ(increment_port_count(m, port), port_result::done);
    }
  }

  int entry(int32_t port) const { return *port_entry(m, port); }

  port_m *m = nullptr;
};

TEST_F(PortAllocationTest, PointerClimbsToTheTopAndThenComesBackToAFreedPort) {
  for (const int32_t port : {100, 101, 102}) EXPECT_EQ(allocate(), port);
  EXPECT_EQ(free_port(m, 100), port_result::done);
  EXPECT_EQ(m->next_free_port, 103);
  EXPECT_THAT(allocate_all(), ElementsAre(103, 100));
  EXPECT_THAT(entries(m), ElementsAre(0x80, 0x80, 0x80, 0x80));
  EXPECT_EQ(find_free_port(m), NO_PORT);
}

TEST_F(PortAllocationTest, FirstReleaseBringsThePointerBackFromExhaustion) {
  allocate_all();
  EXPECT_EQ(set_port(m, m->next_free_port), port_result::out_of_range);
  EXPECT_EQ(free_port(m, 102), port_result::done);
  EXPECT_EQ(m->next_free_port, 102);
  EXPECT_EQ(free_port(m, 101), port_result::done);
  EXPECT_EQ(m->next_free_port, 102) << "the pointer moves down for the first release only";
}

TEST_F(PortAllocationTest, OnlyAPortThatIsFreeAndNotPrivateEndsExhaustion) {
  restart("INT 101 102\n");
  hold(103, 2);
  for (int32_t port = MIN; port <= MAX; ++port) set_port(m, port);
  ASSERT_EQ(m->next_free_port, NO_PORT);
  free_port(m, 102);
  EXPECT_EQ(entry(102), 0x40);
  free_port(m, 103);
  EXPECT_EQ(m->next_free_port, NO_PORT) << "a holder is left";
  free_port(m, 103);
  EXPECT_EQ(m->next_free_port, 103);
  m->next_free_port = NO_PORT;
  free_port(m, 103);
  EXPECT_EQ(m->next_free_port, 103) << "it was free already";
}

TEST_F(PortAllocationTest, SettingAPortTwiceIsAcceptedAndUndoneByOneRelease) {
  EXPECT_EQ(set_port(m, 101), port_result::done);
  EXPECT_EQ(set_port(m, 101), port_result::done);
  EXPECT_EQ(entry(101), 0x80);
  EXPECT_EQ(free_port(m, 101), port_result::done);
  EXPECT_EQ(entry(101), 0);
  EXPECT_EQ(free_port(m, 101), port_result::done) << "nobody holds it";
  EXPECT_EQ(entry(101), 0);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, PortSetAboveThePointerIsAnObstacleThatSendsItToTheBottom) {
  EXPECT_EQ(set_port(m, 102), port_result::done);
  EXPECT_EQ(m->next_free_port, 100);
  EXPECT_EQ(allocate(), 100);
  EXPECT_EQ(m->next_free_port, 101);
  free_port(m, 100);
  EXPECT_EQ(allocate(), 101);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, UpdateFromExhaustionSearches) {
  m->next_free_port = NO_PORT;
  update_next_free_port(m);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, PortsOutOfRangeChangeNothing) {
  const auto before = entries(m);
  for (const int32_t port : {99, 104, -1, 0, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(set_port(m, port), port_result::out_of_range);
    EXPECT_EQ(increment_port_count(m, port), port_result::out_of_range);
    EXPECT_EQ(free_port(m, port), port_result::out_of_range);
    EXPECT_FALSE(is_port_free(m, port));
    EXPECT_FALSE(is_port_private(m, port));
  }
  EXPECT_EQ(entries(m), before);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, NoMapAnswersMinusOne) {
  EXPECT_EQ(set_port(nullptr, 100), port_result::no_map);
  EXPECT_EQ(increment_port_count(nullptr, 100), port_result::no_map);
  EXPECT_THAT(all_messages(), ElementsAre(dbg("Setting port 100\n"), dbg("NULL value for port_m\n"),
                                          dbg("NULL value for port_m\n")));
}

TEST_F(PortAllocationTest, PortComesFreeWithItsLastHolderUnlessThirtyTwoHaveItAtOnce) {
  struct {
    int holders;
    int entry;
    int releases;
    int left;
  } const cases[] = {{1, 0x81, 1, 0},   {2, 0x82, 1, 0x81},    {2, 0x82, 2, 0},
                     {31, 0x9F, 31, 0}, {32, 0xA0, 100, 0xA0}, {63, 0xBF, 100, 0xBF},
                     {64, 0x80, 1, 0},  {65, 0x81, 1, 0}};
  for (const bool is_private : {false, true}) {
    for (const auto &each : cases) {
      SCOPED_TRACE(each.holders);
      restart(is_private ? "INT 101\n" : "INT 102\n");
      const int mark = is_private ? PORT_PRIVATE : 0;
      hold(101, each.holders);
      EXPECT_EQ(entry(101), each.entry | mark);
      EXPECT_EQ(set_port(m, 101), port_result::done)
          << "a reservation beside the rows isn't counted";
      EXPECT_EQ(entry(101), each.entry | mark);
      for (int i = 0; i < each.releases; ++i) EXPECT_EQ(free_port(m, 101), port_result::done);
      EXPECT_EQ(entry(101), each.left | mark);
      EXPECT_EQ(is_port_free(m, 101), each.left == 0);
      clear_port_maps();
      EXPECT_EQ(entry(101), 0) << "whatever its count";
    }
  }
}

TEST_F(PortAllocationTest, CountAloneTakesThePortAndLeavesThePointer) {
  EXPECT_EQ(increment_port_count(m, 100), port_result::done);
  EXPECT_EQ(entry(100), 0x81);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, PrivatePortsAreSetButNeverHandedOut) {
  restart("INT 101 102\n");
  EXPECT_TRUE(is_port_private(m, 101));
  EXPECT_FALSE(is_port_private(m, 103));
  EXPECT_THAT(allocate_all(), ElementsAre(100, 103));
  EXPECT_EQ(find_free_port(m), NO_PORT);
  EXPECT_EQ(set_port(m, 102), port_result::done);
  EXPECT_EQ(entry(102), 0xC0);
}

TEST_F(PortAllocationTest, MarksOfAMapWithoutRangesAreNotLookedAt) {
  m->port_map[1] = PORT_PRIVATE;
  EXPECT_FALSE(is_port_private(m, 101));
}

TEST_F(PortAllocationTest, FindFreePortTakesTheLowestWhereverThePointerStands) {
  set_port(m, 100);
  m->next_free_port = 103;
  EXPECT_EQ(find_free_port(m), 101);
  EXPECT_EQ(m->next_free_port, 103);
}

TEST_F(PortAllocationTest, RangeGivesItsPortsInTheOrderOfTheFileAndNeverItsBase) {
  restart("INT 101 103 102\nINT 101 100\nINT 102\n");
  EXPECT_EQ(find_free_port_in_range(m, 101), 103);
  EXPECT_EQ(find_free_port_in_range(m, 101), 103) << "the search takes nothing";
  set_port(m, 103);
  EXPECT_EQ(find_free_port_in_range(m, 101), 102);
  set_port(m, 102);
  EXPECT_EQ(find_free_port_in_range(m, 101), NO_PORT) << "the second range of the base isn't found";
  free_port(m, 103);
  EXPECT_EQ(find_free_port_in_range(m, 101), 103);
  EXPECT_EQ(find_free_port_in_range(m, 102), NO_PORT) << "a base alone";
  EXPECT_EQ(find_free_port_in_range(m, 103), NO_PORT) << "no base";
  EXPECT_EQ(find_free_port_in_range(port_m_ext, 101), 0) << "a map without ranges";
}

TEST_F(PortAllocationTest, NoOperationAllocatesOrTakesTheLock) {
  restart("INT 101 102\n");
  take_lock(port_map_lock);
  standin::reset_allocation_count();
  set_port(m, 100);
  increment_port_count(m, 100);
  free_port(m, 100);
  update_next_free_port(m);
  is_port_free(m, 100);
  is_port_private(m, 100);
  find_free_port(m);
  find_free_port_in_range(m, 101);
  EXPECT_EQ(standin::allocation_count(pool::both), 0u);
  release_lock(port_map_lock);
}

}  // namespace
