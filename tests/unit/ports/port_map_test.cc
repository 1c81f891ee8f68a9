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
    port_settings.internal.min,        port_settings.internal.max,
    port_settings.external.min,        port_settings.external.max,
    port_settings.static_internal.min, port_settings.static_internal.max,
    port_settings.static_external.min, port_settings.static_external.max};
const std::string default_path = port_settings.private_ranges_file_path;

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

TEST_F(PortMapTest, MapsTakeOneBytePerPort) {
  int32_t ports = 256;
  for (const port_map_kind &kind : port_map_kinds) set_bounds(kind, MIN, MIN + ports++ - 1);
  start();
  const auto blocks = standin::live_blocks(pool::shm);
  ports = 256;
  for (const port_map_kind &kind : port_map_kinds) {
    const auto found = std::find_if(blocks.begin(), blocks.end(), [&](const auto &block) {
      return block.address == (*kind.map)->port_map;
    });
    ASSERT_NE(found, blocks.end());
    EXPECT_EQ(found->size, static_cast<size_t>(ports++)) << kind.word;
  }
}

TEST_F(PortMapTest, EachMapHasItsWordToTheLetter) {
  start();
  EXPECT_EQ(port_map_by_word("INT"), port_m_int);
  EXPECT_EQ(port_map_by_word("EXT"), port_m_ext);
  EXPECT_EQ(port_map_by_word("STATIC_INT"), port_m_static_int);
  EXPECT_EQ(port_map_by_word("STATIC_EXT"), port_m_static_ext);
  for (const char *word :
       {"", "int", "Ext", "INT ", " INT", "STATIC", "STATIC_", "INTX", "STATIC-INT"})
    EXPECT_EQ(port_map_by_word(word), nullptr) << word;
}

TEST_F(PortMapTest, EachMapHasTheBoundsOfItsOwnParameters) {
  int32_t *const parameters[][2] = {
      {&port_settings.internal.min, &port_settings.internal.max},
      {&port_settings.external.min, &port_settings.external.max},
      {&port_settings.static_internal.min, &port_settings.static_internal.max},
      {&port_settings.static_external.min, &port_settings.static_external.max}};
  int32_t next = 10;
  for (int32_t *const *each : parameters) {
    *each[0] = next++;
    *each[1] = next++;
  }
  start();
  next = 10;
  for (const port_m *m : {port_m_int, port_m_ext, port_m_static_int, port_m_static_ext}) {
    EXPECT_EQ(m->next_free_port, next);
    EXPECT_EQ(m->min_port, next++);
    EXPECT_EQ(m->max_port, next++);
  }
}

TEST_F(PortMapTest, StartTakesNineSharedBlocksAndNeedsNoRangeFile) {
  standin::reset_allocation_count();
  ASSERT_TRUE(init_port_maps());
  EXPECT_EQ(standin::allocation_count(pool::shm), 9u);
  EXPECT_EQ(standin::allocation_count(pool::pkg), 0u);
  EXPECT_THAT(all_messages(),
              ElementsAre(dbg("Could not open file '" + path() + "' with private port range\n")));
  for (const port_map_kind &kind : port_map_kinds) {
    const port_m *const m = *kind.map;
    EXPECT_THAT(entries(m), ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(m->private_range, nullptr);
    EXPECT_EQ(m->private_range_count, 0);
  }
  EXPECT_TRUE(lock_is_free());
}

TEST_F(PortMapTest, EachAllocationThatFailsStopsTheStartWithItsOwnInfoLine) {
  using said = std::vector<message>;
  const auto no_map = [](const std::string &range) {
    return said{info("Could not create port management in shared memory for " + range + "\n")};
  };
  const auto no_bytes = [](const std::string &name) {
    return said{info("Could not allocate memory for " + name + "->port_map\n")};
  };
  const said lines[] = {
      no_map("internal range"),
      no_map("external range"),
      no_map("internal range for static endpoint"),
      no_map("external range for static endpoint"),
      no_bytes("port_m_int"),
      no_bytes("port_m_ext"),
      no_bytes("port_m_static_int"),
      no_bytes("port_m_static_ext"),
      {err("Could not allocate the lock\n"), info("Could not initialize port map lock\n")}};
  for (uint64_t n = 1; n <= std::size(lines); ++n) {
    standin::clear_logs();
    standin::fail_at(pool::shm, n);
    EXPECT_FALSE(init_port_maps()) << n;
    EXPECT_EQ(all_messages(), lines[n - 1]) << n;
    destroy_port_maps();
    EXPECT_EQ(standin::live_count(pool::shm), n - 1) << "without the lock, what was made stays";
    free_left_overs();
  }
}

TEST_F(PortMapTest, BoundsOneApartBackToFrontAreAMapOfNoPorts) {
  set_all_bounds(100, 99);
  start();
  for (const port_map_kind &kind : port_map_kinds) {
    port_m *const m = *kind.map;
    EXPECT_EQ(m->next_free_port, 100);
    EXPECT_EQ(set_port(m, 100), port_result::out_of_range);
    EXPECT_EQ(set_port(m, 99), port_result::out_of_range);
    EXPECT_EQ(find_free_port(m), NO_PORT);
    EXPECT_FALSE(is_port_free(m, 99));
  }
  clear_port_maps();
  EXPECT_EQ(port_m_int->next_free_port, 100);
}

TEST_F(PortMapTest, BoundsFurtherBackToFrontOrTooFarApartFailTheStartForTheirMap) {
  for (const port_map_kind &kind : port_map_kinds) {
    for (const auto &[min, max] :
         {std::pair(100, 98), std::pair(INT_MAX, INT_MIN), std::pair(INT_MIN, INT_MAX)}) {
      standin::clear_logs();
      set_all_bounds(MIN, MAX);
      set_bounds(kind, min, max);
      EXPECT_FALSE(init_port_maps()) << kind.word;
      EXPECT_THAT(messages(), ElementsAre(info(kind.no_entries.format)));
      free_left_overs();
    }
  }
}

TEST_F(PortMapTest, BoundsAtTheEndsOfTheNumbersWork) {
  set_bounds(port_map_kinds[0], INT_MAX - 1, INT_MAX);
  set_bounds(port_map_kinds[1], INT_MIN, INT_MIN + 1);
  start();
  EXPECT_EQ(set_port(port_m_int, INT_MAX - 1), port_result::done);
  EXPECT_EQ(port_m_int->next_free_port, INT_MAX);
  EXPECT_EQ(set_port(port_m_int, INT_MAX), port_result::done);
  EXPECT_EQ(port_m_int->next_free_port, NO_PORT);
  EXPECT_EQ(set_port(port_m_int, INT_MIN), port_result::out_of_range);
  EXPECT_EQ(set_port(port_m_ext, INT_MIN), port_result::done);
  EXPECT_EQ(port_m_ext->next_free_port, INT_MIN + 1);
  EXPECT_EQ(set_port(port_m_ext, INT_MAX), port_result::out_of_range);
}

TEST_F(PortMapTest, ClearFreesEveryPortOfEveryMapAndStartsAtTheBottom) {
  start("INT 101 102\nSTATIC_EXT 100\n");
  for (const port_map_kind &kind : port_map_kinds)
    for (int32_t port = MIN; port <= MAX; ++port) {
      set_port(*kind.map, port);
      increment_port_count(*kind.map, port);
    }
  standin::clear_logs();
  EXPECT_TRUE(waits_for_lock([] { clear_port_maps(); }));
  for (const port_map_kind &kind : port_map_kinds) {
    EXPECT_THAT(entries(*kind.map), Each(0)) << kind.word;
    EXPECT_EQ((*kind.map)->next_free_port, MIN) << kind.word;
  }
  EXPECT_THAT(all_messages(), IsEmpty());
  EXPECT_TRUE(lock_is_free());
}

TEST_F(PortMapTest, ClearKeepsThePrivateRangesButNotTheirMarks) {
  start("INT 101 102\n");
  clear_port_maps();
  EXPECT_FALSE(is_port_private(port_m_int, 102));
  EXPECT_THAT(range_of(port_m_int, 0), ElementsAre(101, 102, -1, -1, -1, -1, -1, -1, -1, -1));
  EXPECT_EQ(find_free_port_in_range(port_m_int, 101), 102);
  set_port(port_m_int, 100);
  EXPECT_EQ(port_m_int->next_free_port, 101) << "a port of the range is an ordinary one now";
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

TEST_F(PortMapTest, DestroyFreesEverythingOnceAndKeepsTheGlobals) {
  start("INT 101 102\nINT 103\nEXT 100\n");
  const port_m *const before[] = {port_m_int, port_m_ext, port_m_static_int, port_m_static_ext};
  destroy_port_maps();
  EXPECT_EQ(standin::leak_report(pool::both), "");
  EXPECT_EQ(port_map_lock, nullptr);
  size_t i = 0;
  for (const port_map_kind &kind : port_map_kinds) EXPECT_EQ(*kind.map, before[i++]);
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
  port_map_lock = generate_lock();
  ASSERT_NE(port_map_lock, nullptr);
  destroy_port_maps();
  EXPECT_EQ(port_map_lock, nullptr);
}

}  // namespace
