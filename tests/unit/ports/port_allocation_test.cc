// Taking, counting, releasing and finding ports, one rule at a time.
#include "ports/port_allocation.h"

#include "tests/unit/ports/port_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

class PortAllocationTest : public PortTest {
 protected:
  void SetUp() override {
    PortTest::SetUp();
    start();
    m = port_m_int;
  }

  void restart(const std::string &ranges) {
    start(ranges);
    m = port_m_int;
  }

  // What an ordinary allocation does: take the port that the pointer stands on.
  int32_t allocate() const {
    const int32_t port = m->next_free_port;
    EXPECT_EQ(set_port(m, port), 1);
    return port;
  }

  // What a row does.
  void hold(int32_t port, int times = 1) const {
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ(set_port(m, port), 1);
      EXPECT_EQ(increment_port_count(m, port), 1);
    }
  }

  int entry(int32_t port) const { return m->port_map[port - m->min_port]; }

  // Runs body with an empty log and gives all that it logged.
  template <typename Body>
  static std::vector<message> log_of(Body body) {
    standin::clear_logs();
    body();
    return all_messages();
  }

  port_m *m = nullptr;
};

TEST_F(PortAllocationTest, PointerClimbsThroughTheRangeAndComesBackToAFreedPort) {
  EXPECT_EQ(allocate(), 100);
  EXPECT_EQ(allocate(), 101);
  EXPECT_EQ(allocate(), 102);
  EXPECT_EQ(free_port(m, 100), 0);
  EXPECT_EQ(m->next_free_port, 103);
  EXPECT_EQ(allocate(), 103);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, LastFreePortLeavesNoneAndAReleaseBringsThePointerBack) {
  allocate();
  allocate();
  allocate();
  free_port(m, 100);
  allocate();
  EXPECT_EQ(allocate(), 100);
  EXPECT_EQ(m->next_free_port, NO_PORT);
  EXPECT_EQ(find_free_port(m), NO_PORT);
  EXPECT_EQ(free_port(m, 102), 0);
  EXPECT_EQ(m->next_free_port, 102);
  EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(m->next_free_port, 102) << "the pointer moves down for the first release only";
}

TEST_F(PortAllocationTest, SetPortOfTheLastFreePortLeavesNone) {
  for (int i = 0; i < 4; ++i) allocate();
  EXPECT_EQ(m->next_free_port, NO_PORT);
  EXPECT_THAT(entries(m), ElementsAre(0x80, 0x80, 0x80, 0x80));
  EXPECT_EQ(set_port(m, NO_PORT), -2);
}

TEST_F(PortAllocationTest, SetPortTwiceIsAcceptedAndFreedByOneRelease) {
  EXPECT_EQ(set_port(m, 101), 1);
  EXPECT_EQ(set_port(m, 101), 1);
  EXPECT_EQ(entry(101), 0x80);
  EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0);
}

TEST_F(PortAllocationTest, SetPortAboveThePointerLeavesItUntilItArrives) {
  EXPECT_EQ(set_port(m, 102), 1);
  EXPECT_EQ(m->next_free_port, 100);
  EXPECT_EQ(allocate(), 100);
  EXPECT_EQ(m->next_free_port, 101);
  free_port(m, 100);
  EXPECT_EQ(allocate(), 101);
  EXPECT_EQ(m->next_free_port, 100) << "the obstacle sends the search to the bottom";
}

TEST_F(PortAllocationTest, SetPortOnAHeldPortKeepsItsCount) {
  hold(101, 3);
  EXPECT_EQ(set_port(m, 101), 1);
  EXPECT_EQ(entry(101), 0x83);
}

TEST_F(PortAllocationTest, SetPortOfAPrivatePortIsAccepted) {
  restart("INT 101 102\n");
  EXPECT_EQ(set_port(m, 102), 1);
  EXPECT_EQ(entry(102), 0xC0);
}

TEST_F(PortAllocationTest, PortsOutOfRangeChangeNothing) {
  const auto before = entries(m);
  for (const int32_t port : {99, 104, -1, 0, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(set_port(m, port), -2);
    EXPECT_EQ(increment_port_count(m, port), -2);
    EXPECT_EQ(free_port(m, port), -2);
    EXPECT_EQ(is_port_free(m, port), 0);
    EXPECT_EQ(is_port_private(m, port), 0);
  }
  EXPECT_EQ(entries(m), before);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, NoMapAnswersMinusOne) {
  EXPECT_THAT(log_of([] { EXPECT_EQ(set_port(nullptr, 100), -1); }),
              ElementsAre(dbg("Setting port 100\n"), dbg("NULL value for port_m\n")));
  EXPECT_THAT(log_of([] { EXPECT_EQ(increment_port_count(nullptr, 100), -1); }),
              ElementsAre(dbg("NULL value for port_m\n")));
}

TEST_F(PortAllocationTest, CountedPortIsFreedByItsLastHolder) {
  hold(101, 2);
  EXPECT_EQ(entry(101), 0x82);
  EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0x81);
  EXPECT_EQ(is_port_free(m, 101), 0);
  EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0);
}

TEST_F(PortAllocationTest, ScriptsReservationIsNotCounted) {
  set_port(m, 101);
  hold(101);
  EXPECT_EQ(entry(101), 0x81);
  free_port(m, 101);
  EXPECT_EQ(entry(101), 0);
}

TEST_F(PortAllocationTest, CountAloneTakesThePortAndLeavesThePointer) {
  EXPECT_EQ(increment_port_count(m, 100), 1);
  EXPECT_EQ(entry(100), 0x81);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, CountKeepsThePrivateMark) {
  restart("INT 101\n");
  hold(101, 64);
  EXPECT_EQ(entry(101), 0xC0);
  EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0x40);
}

TEST_F(PortAllocationTest, ReleaseOfAPortNeverTakenChangesNothing) {
  EXPECT_EQ(free_port(m, 102), 0);
  EXPECT_EQ(entry(102), 0);
  EXPECT_EQ(m->next_free_port, 100);
}

TEST_F(PortAllocationTest, ThirtyOneHoldersAreTheMostThatComeFree) {
  hold(101, 31);
  EXPECT_EQ(entry(101), 0x9F);
  for (int i = 0; i < 31; ++i) EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0);
}

TEST_F(PortAllocationTest, ThirtyTwoHoldersStayForEver) {
  hold(101, 32);
  EXPECT_EQ(entry(101), 0xA0);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0xA0);
  EXPECT_EQ(is_port_free(m, 101), 0);
  hold(101, 31);
  EXPECT_EQ(entry(101), 0xBF);
  free_port(m, 101);
  EXPECT_EQ(entry(101), 0xBF);
  clear_port_maps();
  EXPECT_EQ(entry(101), 0);
}

TEST_F(PortAllocationTest, SixtyFourthHolderWrapsToNoneAndTheNextReleaseFrees) {
  hold(101, 64);
  EXPECT_EQ(entry(101), 0x80);
  EXPECT_EQ(free_port(m, 101), 0);
  EXPECT_EQ(entry(101), 0);
}

TEST_F(PortAllocationTest, SixtyFifthHolderCountsFromOneAgain) {
  hold(101, 65);
  EXPECT_EQ(entry(101), 0x81);
}

TEST_F(PortAllocationTest, ReleaseFromExhaustionByAPortThatKeepsAHolderLeavesThePointer) {
  hold(101, 2);
  allocate();
  set_port(m, 102);
  set_port(m, 103);
  update_next_free_port(m);
  ASSERT_EQ(m->next_free_port, NO_PORT);
  free_port(m, 101);
  EXPECT_EQ(m->next_free_port, NO_PORT);
  free_port(m, 101);
  EXPECT_EQ(m->next_free_port, 101);
}

TEST_F(PortAllocationTest, ReleaseOfAPrivatePortLeavesExhaustion) {
  restart("INT 101 102\n");
  for (int32_t port = MIN; port <= MAX; ++port) set_port(m, port);
  ASSERT_EQ(m->next_free_port, NO_PORT);
  free_port(m, 102);
  EXPECT_EQ(m->next_free_port, NO_PORT);
  EXPECT_EQ(entry(102), 0x40);
  free_port(m, 103);
  EXPECT_EQ(m->next_free_port, 103);
}

TEST_F(PortAllocationTest, ReleaseOfAPortNeverTakenCanEndExhaustion) {
  m->next_free_port = NO_PORT;
  free_port(m, 102);
  EXPECT_EQ(m->next_free_port, 102);
}

TEST_F(PortAllocationTest, PointerStepsOverPrivatePortsFromTheBottom) {
  restart("INT 101 102\n");
  EXPECT_EQ(allocate(), 100);
  EXPECT_EQ(m->next_free_port, 103);
  EXPECT_EQ(allocate(), 103);
  EXPECT_EQ(m->next_free_port, NO_PORT) << "only private ports are free";
  EXPECT_EQ(find_free_port(m), NO_PORT);
}

TEST_F(PortAllocationTest, FindFreePortTakesTheLowestWhereverThePointerStands) {
  set_port(m, 100);
  m->next_free_port = 103;
  EXPECT_EQ(find_free_port(m), 101);
  EXPECT_EQ(m->next_free_port, 103);
}

TEST_F(PortAllocationTest, MapWithoutRangesAnswersZeroForAnyBase) {
  for (const int32_t base : {100, 0, -1, 999})
    EXPECT_THAT(log_of([&] { EXPECT_EQ(find_free_port_in_range(m, base), 0); }),
                ElementsAre(dbg("There is no private range of ports within this range\n")));
}

TEST_F(PortAllocationTest, UnknownBaseAnswersMinusOne) {
  restart("INT 101 102\n");
  EXPECT_THAT(log_of([&] { EXPECT_EQ(find_free_port_in_range(m, 102), NO_PORT); }),
              ElementsAre(dbg("The base port 102 is not assigned to any private range\n")));
}

TEST_F(PortAllocationTest, RangeGivesItsPortsInTheOrderOfTheFileAndNeverItsBase) {
  restart("INT 101 103 102\n");
  EXPECT_EQ(find_free_port_in_range(m, 101), 103);
  EXPECT_EQ(find_free_port_in_range(m, 101), 103) << "the search takes nothing";
  set_port(m, 103);
  EXPECT_EQ(find_free_port_in_range(m, 101), 102);
  set_port(m, 102);
  EXPECT_THAT(
      log_of([&] { EXPECT_EQ(find_free_port_in_range(m, 101), NO_PORT); }),
      ElementsAre(dbg("Port 103 is within range\n"), dbg("Port = 103 is in USE, value=-64 \n"),
                  dbg("Port 103 of private range is in use\n"), dbg("Port 102 is within range\n"),
                  dbg("Port = 102 is in USE, value=-64 \n"),
                  dbg("Port 102 of private range is in use\n"),
                  err("No free port available for this private range with base port 101\n")));
  free_port(m, 103);
  EXPECT_EQ(find_free_port_in_range(m, 101), 103);
}

TEST_F(PortAllocationTest, RangeOfABaseAloneIsExhausted) {
  restart("INT 101\n");
  EXPECT_THAT(
      log_of([&] { EXPECT_EQ(find_free_port_in_range(m, 101), NO_PORT); }),
      ElementsAre(err("No free port available for this private range with base port 101\n")));
}

TEST_F(PortAllocationTest, OfTwoRangesWithOneBaseOnlyTheFirstIsFound) {
  restart("INT 101 102\nINT 101 103\n");
  EXPECT_EQ(find_free_port_in_range(m, 101), 102);
  set_port(m, 102);
  EXPECT_EQ(find_free_port_in_range(m, 101), NO_PORT);
}

TEST_F(PortAllocationTest, SearchInARangeTellsThePortThatItFound) {
  restart("INT 101 102\n");
  EXPECT_THAT(log_of([&] { EXPECT_EQ(find_free_port_in_range(m, 101), 102); }),
              ElementsAre(dbg("Port 102 is within range\n"), dbg("Port = 102 is FREE, value=64 \n"),
                          dbg("Port 102 is free in private range with base port 101\n")));
}

TEST_F(PortAllocationTest, SetPortTellsEachStep) {
  EXPECT_THAT(log_of([&] { set_port(m, 101); }),
              ElementsAre(dbg("Setting port 101\n"), dbg("Port 101 is within range\n"),
                          dbg("Port 101 is being reserved, value 0xffffff80 \n")));
  EXPECT_THAT(log_of([&] { set_port(m, 104); }),
              ElementsAre(dbg("Setting port 104\n"), dbg("Port 104 out of range\n")));
}

TEST_F(PortAllocationTest, SetPortAtThePointerTellsTheStepOfThePointer) {
  EXPECT_THAT(log_of([&] { set_port(m, 100); }),
              ElementsAre(dbg("Setting port 100\n"), dbg("Port 100 is within range\n"),
                          dbg("Current free port is 100\n"), dbg("Port 101 is within range\n"),
                          dbg("Port = 101 is FREE, value=0 \n"),
                          dbg("There is no private range of ports within this range\n"),
                          dbg("Next free port update to 101\n"),
                          dbg("Port 100 is being reserved, value 0xffffff80 \n")));
}

TEST_F(PortAllocationTest, CountTellsTheByteBeforeAndAfter) {
  EXPECT_THAT(log_of([&] { increment_port_count(m, 101); }),
              ElementsAre(dbg("Port 101 Before Value = 0x0\n"),
                          dbg("Port 101 After Value = 0xffffff81\n")));
  EXPECT_THAT(log_of([&] { increment_port_count(m, 104); }),
              ElementsAre(dbg("Port 104 out of range\n")));
}

TEST_F(PortAllocationTest, ReleaseTellsTheByteThatIsLeft) {
  hold(101, 2);
  EXPECT_THAT(log_of([&] { free_port(m, 101); }),
              ElementsAre(dbg("Port = 101 is freed and value update to 0xffffff81\n")));
  EXPECT_THAT(log_of([&] { free_port(m, 101); }),
              ElementsAre(dbg("Port = 101 is freed and value update to 0x0\n")));
  EXPECT_THAT(log_of([&] { EXPECT_EQ(free_port(m, 104), -2); }),
              ElementsAre(dbg("Port 104 out of range\n")));
}

TEST_F(PortAllocationTest, ReleaseFromExhaustionTellsTheNewPointer) {
  m->next_free_port = NO_PORT;
  EXPECT_THAT(log_of([&] { free_port(m, 101); }),
              ElementsAre(dbg("There is no private range of ports within this range\n"),
                          dbg("New Free Port updated to 101\n"),
                          dbg("Port = 101 is freed and value update to 0x0\n")));
}

TEST_F(PortAllocationTest, FreeTestLooksAtTheMarkOfUseAlone) {
  restart("INT 101\n");
  EXPECT_THAT(
      log_of([&] { EXPECT_EQ(is_port_free(m, 101), 1); }),
      ElementsAre(dbg("Port 101 is within range\n"), dbg("Port = 101 is FREE, value=64 \n")));
  hold(100, 3);
  EXPECT_THAT(
      log_of([&] { EXPECT_EQ(is_port_free(m, 100), 0); }),
      ElementsAre(dbg("Port 100 is within range\n"), dbg("Port = 100 is in USE, value=-125 \n")));
  EXPECT_THAT(log_of([&] { EXPECT_EQ(is_port_free(m, 99), 0); }),
              ElementsAre(dbg("Port 99 out of range\n")));
  m->port_map[2] = 5;
  EXPECT_EQ(is_port_free(m, 102), 1) << "a count without the mark of use";
}

TEST_F(PortAllocationTest, PrivateTestTellsItsAnswerAndReportsPortsOutOfRangeAsErrors) {
  restart("INT 101\n");
  EXPECT_THAT(log_of([&] { EXPECT_EQ(is_port_private(m, 101), 1); }),
              ElementsAre(dbg("Port 101 is within range and it is reserved for a private range\n"),
                          dbg("Port 101 is reserved for a private range\n")));
  EXPECT_THAT(
      log_of([&] { EXPECT_EQ(is_port_private(m, 102), 0); }),
      ElementsAre(dbg("Port 102 is within range and it is not reserved for a private range\n"),
                  dbg("Port 102 is not reserved for a private range\n")));
  EXPECT_THAT(log_of([&] { EXPECT_EQ(is_port_private(m, 104), 0); }),
              ElementsAre(err("Port 104 out of range\n")));
}

TEST_F(PortAllocationTest, PrivateTestOfAMapWithoutRangesLooksAtNothing) {
  m->port_map[1] = PORT_PRIVATE;
  for (const int32_t port : {101, 999})
    EXPECT_THAT(log_of([&] { EXPECT_EQ(is_port_private(m, port), 0); }),
                ElementsAre(dbg("There is no private range of ports within this range\n")));
}

TEST_F(PortAllocationTest, FindFreePortTellsEachPortThatItPasses) {
  restart("INT 101\n");
  set_port(m, 100);
  EXPECT_THAT(
      log_of([&] { EXPECT_EQ(find_free_port(m), 102); }),
      ElementsAre(dbg("Processing Port = 100\n"), dbg("Port 100 is within range\n"),
                  dbg("Port = 100 is in USE, value=-128 \n"),
                  dbg("Port = 100 is Not FREE.... IGNORE\n"), dbg("Processing Port = 101\n"),
                  dbg("Port 101 is within range\n"), dbg("Port = 101 is FREE, value=64 \n"),
                  dbg("Port 101 is within range and it is reserved for a private range\n"),
                  dbg("Port 101 is reserved for a private range\n"),
                  dbg("Port = 101 is a Private Port.... IGNORE\n"), dbg("Processing Port = 102\n"),
                  dbg("Port 102 is within range\n"), dbg("Port = 102 is FREE, value=0 \n"),
                  dbg("Port 102 is within range and it is not reserved for a private range\n"),
                  dbg("Port 102 is not reserved for a private range\n"),
                  dbg("Found Free Port = 102\n")));
}

TEST_F(PortAllocationTest, FindFreePortTellsThatThereIsNone) {
  for (int32_t port = MIN; port <= MAX; ++port) set_port(m, port);
  const auto log = log_of([&] { EXPECT_EQ(find_free_port(m), NO_PORT); });
  EXPECT_EQ(log.size(), 4u * 4 + 1);
  EXPECT_EQ(log.back(), dbg("No free port available\n"));
}

TEST_F(PortAllocationTest, UpdateFromExhaustionLooksBelowTheMapAndThenSearches) {
  m->next_free_port = NO_PORT;
  const auto log = log_of([&] { update_next_free_port(m); });
  EXPECT_EQ(m->next_free_port, 100);
  EXPECT_EQ(log.at(0), dbg("Current free port is -1\n"));
  EXPECT_EQ(log.at(1), dbg("Port 0 out of range\n"));
  EXPECT_EQ(log.back(), dbg("Next free port update to 100\n"));
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

TEST_F(PortAllocationTest, NothingIsLoggedAboveDebugByOrdinaryUse) {
  for (int i = 0; i < 4; ++i) allocate();
  hold(101, 3);
  for (int32_t port = MIN - 1; port <= MAX + 1; ++port) free_port(m, port);
  EXPECT_THAT(messages(), IsEmpty());
}

}  // namespace
