// Making, clearing and freeing of the port maps, and each failure on the way.
#include "ports/port_map.h"

#include <climits>

#include "ports/port_allocation.h"
#include "tests/unit/ports/port_fixture.h"

namespace {

using standin::pool;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// As they stand before any test has changed them.
const std::vector<int32_t> default_bounds = {
    g_min_int_port,        g_max_int_port,        g_min_ext_port,        g_max_ext_port,
    g_min_static_int_port, g_max_static_int_port, g_min_static_ext_port, g_max_static_ext_port};
const std::string default_path = private_ranges_file_path;

class PortMapTest : public PortTest {
 protected:
  // What a start that failed before the lock leaves in place; the host's end gives it back.
  static void free_left_overs() {
    ASSERT_EQ(port_map_lock, nullptr);
    for (const port_map_kind &kind : port_map_kinds) {
      port_m *&m = *kind.map;
      if (m != nullptr) tarn_shm_free(m->port_map);
      tarn_shm_free(m);
      m = nullptr;
    }
  }
};

TEST_F(PortMapTest, ParametersHaveTheirDefaults) {
  EXPECT_THAT(default_bounds, ElementsAre(21000, 21255, 10000, 15000, 21000, 21255, 9000, 9255));
  EXPECT_EQ(default_path, "/var/lib/sipserver/gw_private_range.txt");
}

TEST_F(PortMapTest, MapsOfTheDefaultBoundsTakeOneBytePerPort) {
  size_t i = 0;
  for (const port_map_kind &kind : port_map_kinds) {
    set_bounds(kind, default_bounds[i], default_bounds[i + 1]);
    i += 2;
  }
  start();
  const size_t ports[] = {256, 5001, 256, 256};
  i = 0;
  for (const port_map_kind &kind : port_map_kinds) {
    const auto blocks = standin::live_blocks(pool::shm);
    const auto found = std::find_if(blocks.begin(), blocks.end(), [&](const auto &block) {
      return block.address == (*kind.map)->port_map;
    });
    ASSERT_NE(found, blocks.end());
    EXPECT_EQ(found->size, ports[i++]) << kind.word;
  }
}

TEST_F(PortMapTest, EachMapHasItsWord) {
  start();
  EXPECT_EQ(port_map_by_word("INT"), port_m_int);
  EXPECT_EQ(port_map_by_word("EXT"), port_m_ext);
  EXPECT_EQ(port_map_by_word("STATIC_INT"), port_m_static_int);
  EXPECT_EQ(port_map_by_word("STATIC_EXT"), port_m_static_ext);
}

TEST_F(PortMapTest, WordsAreExactAndCaseSensitive) {
  start();
  for (const char *word :
       {"", "int", "Ext", "INT ", " INT", "STATIC", "STATIC_", "INTX", "STATIC-INT"})
    EXPECT_EQ(port_map_by_word(word), nullptr) << word;
}

TEST_F(PortMapTest, EachMapHasTheBoundsOfItsOwnParameters) {
  int32_t min = 10;
  for (const port_map_kind &kind : port_map_kinds) {
    set_bounds(kind, min, min + 4);
    min += 100;
  }
  start();
  EXPECT_EQ(port_m_int->min_port, 10);
  EXPECT_EQ(port_m_int->max_port, 14);
  EXPECT_EQ(port_m_ext->min_port, 110);
  EXPECT_EQ(port_m_ext->max_port, 114);
  EXPECT_EQ(port_m_static_int->min_port, 210);
  EXPECT_EQ(port_m_static_int->max_port, 214);
  EXPECT_EQ(port_m_static_ext->min_port, 310);
  EXPECT_EQ(port_m_static_ext->max_port, 314);
  for (const port_map_kind &kind : port_map_kinds)
    EXPECT_EQ((*kind.map)->next_free_port, (*kind.map)->min_port);
}

TEST_F(PortMapTest, NewMapsAreFreeAndHaveNoPrivateRange) {
  start();
  for (const port_map_kind &kind : port_map_kinds) {
    const port_m *const m = *kind.map;
    EXPECT_THAT(entries(m), ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(m->next_free_port, MIN);
    EXPECT_EQ(m->private_range, nullptr);
    EXPECT_EQ(m->private_range_count, 0);
  }
  EXPECT_TRUE(lock_is_free());
}

TEST_F(PortMapTest, StartTakesNineSharedBlocksAndSaysNothingAboveDebug) {
  standin::reset_allocation_count();
  ASSERT_EQ(init_port_map(), 0);
  EXPECT_EQ(standin::allocation_count(pool::shm), 9u);
  EXPECT_EQ(standin::allocation_count(pool::pkg), 0u);
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(PortMapTest, MissingRangeFileIsNoFault) {
  EXPECT_EQ(init_port_map(), 0);
  EXPECT_THAT(all_messages(),
              ElementsAre(dbg("Could not open file '" + path() + "' with private port range\n")));
}

TEST_F(PortMapTest, EachAllocationThatFailsStopsTheStartWithItsOwnInfoLine) {
  const char *const lines[] = {
      "Could not create port management in shared memory for internal range\n",
      "Could not create port management in shared memory for external range\n",
      "Could not create port management in shared memory for internal range for static endpoint\n",
      "Could not create port management in shared memory for external range for static endpoint\n",
      "Could not allocate memory for port_m_int->port_map\n",
      "Could not allocate memory for port_m_ext->port_map\n",
      "Could not allocate memory for port_m_static_int->port_map\n",
      "Could not allocate memory for port_m_static_ext->port_map\n",
  };
  for (uint64_t n = 1; n <= std::size(lines); ++n) {
    standin::clear_logs();
    standin::fail_at(pool::shm, n);
    EXPECT_EQ(init_port_map(), -1) << n;
    EXPECT_THAT(all_messages(), ElementsAre(info(lines[n - 1]))) << n;
    EXPECT_EQ(standin::live_count(pool::shm), n - 1) << "what was made stays in place";
    free_left_overs();
  }
}

TEST_F(PortMapTest, LockThatFailsStopsTheStart) {
  standin::fail_at(pool::shm, 9);
  EXPECT_EQ(init_port_map(), -1);
  EXPECT_THAT(all_messages(), ElementsAre(err("Could not allocate the lock\n"),
                                          info("Could not initialize port map lock\n")));
  EXPECT_EQ(port_map_lock, nullptr);
  free_left_overs();
}

TEST_F(PortMapTest, DestroyAfterAStartThatFailedDoesNothing) {
  for (uint64_t n = 1; n <= 9; ++n) {
    standin::fail_at(pool::shm, n);
    ASSERT_EQ(init_port_map(), -1);
    destroy_port_maps();
    EXPECT_EQ(standin::live_count(pool::shm), n - 1);
    EXPECT_THAT(standin::memory_errors(), IsEmpty());
    free_left_overs();
  }
}

TEST_F(PortMapTest, LockAloneIsMadeAndFreed) {
  EXPECT_EQ(init_port_map_lock(), 0);
  ASSERT_NE(port_map_lock, nullptr);
  EXPECT_EQ(standin::live_bytes(pool::shm), 4u);
  EXPECT_TRUE(lock_is_free());
  destroy_port_map_lock();
  EXPECT_EQ(port_map_lock, nullptr);
  standin::fail_at(pool::shm, 1);
  EXPECT_EQ(init_port_map_lock(), -1);
  EXPECT_EQ(port_map_lock, nullptr);
}

TEST_F(PortMapTest, BoundsOneApartBackToFrontAreAMapOfNoPorts) {
  set_all_bounds(100, 99);
  start();
  for (const port_map_kind &kind : port_map_kinds) {
    port_m *const m = *kind.map;
    EXPECT_EQ(m->next_free_port, 100);
    EXPECT_EQ(set_port(m, 100), -2);
    EXPECT_EQ(set_port(m, 99), -2);
    EXPECT_EQ(find_free_port(m), NO_PORT);
    EXPECT_EQ(is_port_free(m, 99), 0);
  }
  clear_port_maps();
  EXPECT_EQ(port_m_int->next_free_port, 100);
}

TEST_F(PortMapTest, BoundsFurtherBackToFrontFailTheStartForTheirMap) {
  const char *const globals[] = {"port_m_int", "port_m_ext", "port_m_static_int",
                                 "port_m_static_ext"};
  size_t i = 0;
  for (const port_map_kind &kind : port_map_kinds) {
    for (const auto &[min, max] : {std::pair(100, 98), std::pair(INT_MAX, INT_MIN)}) {
      standin::clear_logs();
      set_all_bounds(MIN, MAX);
      set_bounds(kind, min, max);
      EXPECT_EQ(init_port_map(), -1) << kind.word;
      EXPECT_THAT(messages(), ElementsAre(info(std::string("Could not allocate memory for ") +
                                               globals[i] + "->port_map\n")));
      free_left_overs();
    }
    ++i;
  }
}

TEST_F(PortMapTest, MoreBoundsThanANumberHoldsFailTheStart) {
  set_bounds(port_map_kinds[0], INT_MIN, INT_MAX);
  EXPECT_EQ(init_port_map(), -1);
  EXPECT_THAT(messages(),
              ElementsAre(info("Could not allocate memory for port_m_int->port_map\n")));
  free_left_overs();
}

TEST_F(PortMapTest, BoundsAtTheEndsOfTheNumbersWork) {
  set_bounds(port_map_kinds[0], INT_MAX - 1, INT_MAX);
  set_bounds(port_map_kinds[1], INT_MIN, INT_MIN + 1);
  start();
  EXPECT_EQ(set_port(port_m_int, INT_MAX - 1), 1);
  EXPECT_EQ(port_m_int->next_free_port, INT_MAX);
  EXPECT_EQ(set_port(port_m_int, INT_MAX), 1);
  EXPECT_EQ(port_m_int->next_free_port, NO_PORT);
  EXPECT_EQ(set_port(port_m_int, INT_MIN), -2);
  EXPECT_EQ(set_port(port_m_ext, INT_MIN), 1);
  EXPECT_EQ(port_m_ext->next_free_port, INT_MIN + 1);
  EXPECT_EQ(set_port(port_m_ext, INT_MAX), -2);
}

TEST_F(PortMapTest, MapsWithTheSameBoundsAreIndependent) {
  start();
  EXPECT_EQ(set_port(port_m_int, 100), 1);
  EXPECT_THAT(entries(port_m_int), ElementsAre(0x80, 0, 0, 0));
  for (const port_m *other : {port_m_ext, port_m_static_int, port_m_static_ext}) {
    EXPECT_THAT(entries(other), ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(other->next_free_port, 100);
  }
}

TEST_F(PortMapTest, ClearFreesEveryPortOfEveryMapAndStartsAtTheBottom) {
  start("INT 101 102\nSTATIC_EXT 100\n");
  for (const port_map_kind &kind : port_map_kinds)
    for (int32_t port = MIN; port <= MAX; ++port) {
      set_port(*kind.map, port);
      increment_port_count(*kind.map, port);
    }
  standin::clear_logs();
  clear_port_maps();
  for (const port_map_kind &kind : port_map_kinds) {
    EXPECT_THAT(entries(*kind.map), Each(0)) << kind.word;
    EXPECT_EQ((*kind.map)->next_free_port, MIN) << kind.word;
  }
  EXPECT_THAT(all_messages(), IsEmpty());
  EXPECT_TRUE(lock_is_free());
}

TEST_F(PortMapTest, ClearKeepsThePrivateRangesButNotTheirMarks) {
  start("INT 101 102\n");
  ASSERT_EQ(is_port_private(port_m_int, 102), 1);
  clear_port_maps();
  EXPECT_EQ(is_port_private(port_m_int, 101), 0);
  EXPECT_EQ(is_port_private(port_m_int, 102), 0);
  EXPECT_EQ(port_m_int->private_range_count, 1);
  EXPECT_THAT(range_of(port_m_int, 0), ElementsAre(101, 102, -1, -1, -1, -1, -1, -1, -1, -1));
  EXPECT_EQ(find_free_port_in_range(port_m_int, 101), 102);
  EXPECT_EQ(find_free_port(port_m_int), 100);
  set_port(port_m_int, 100);
  EXPECT_EQ(port_m_int->next_free_port, 101) << "a port of the range is an ordinary one now";
}

TEST_F(PortMapTest, ClearTakesTheLock) {
  start();
  set_port(port_m_int, 100);
  EXPECT_TRUE(waits_for_lock([] { clear_port_maps(); }));
  EXPECT_THAT(entries(port_m_int), Each(0));
  EXPECT_TRUE(lock_is_free());
}

TEST_F(PortMapTest, DestroyTakesTheLock) {
  start("INT 101\n");
  // The lock's block goes within, so that the word can't be released from here.
  tarn_lock *const lock = port_map_lock;
  std::atomic<bool> done{false};
  take_lock(lock);
  std::thread runner([&] {
    destroy_port_maps();
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done);
  release_lock(lock);
  runner.join();
  EXPECT_EQ(port_map_lock, nullptr);
}

TEST_F(PortMapTest, DestroyFreesEverythingAndKeepsTheGlobals) {
  start("INT 101 102\nINT 103\nEXT 100\n");
  const port_m *const before[] = {port_m_int, port_m_ext, port_m_static_int, port_m_static_ext};
  destroy_port_maps();
  EXPECT_EQ(standin::leak_report(pool::both), "");
  EXPECT_EQ(port_map_lock, nullptr);
  size_t i = 0;
  for (const port_map_kind &kind : port_map_kinds) EXPECT_EQ(*kind.map, before[i++]);
}

TEST_F(PortMapTest, DestroyTwiceFreesOnce) {
  start();
  destroy_port_maps();
  destroy_port_maps();
  EXPECT_THAT(standin::memory_errors(), IsEmpty());
}

TEST_F(PortMapTest, DestroyWithoutALockDoesNothingAtAll) {
  start();
  tarn_lock *const lock = port_map_lock;
  port_map_lock = nullptr;
  const size_t blocks = standin::live_count(pool::shm);
  destroy_port_maps();
  EXPECT_EQ(standin::live_count(pool::shm), blocks);
  port_map_lock = lock;
}

TEST_F(PortMapTest, DestroyPassesOverMapsThatDoNotExist) {
  ASSERT_EQ(init_port_map_lock(), 0);
  destroy_port_maps();
  EXPECT_EQ(port_map_lock, nullptr);
}

}  // namespace
