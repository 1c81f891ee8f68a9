// The private range file: what each kind of line adds, and what failures leave.
#include "ports/private_ranges.h"

#include <cerrno>
#include <tuple>

#include "ports/port_allocation.h"
#include "tests/unit/ports/port_fixture.h"

namespace {

using standin::pool;
using testing::ElementsAre;
using testing::IsEmpty;

using ports = std::vector<int32_t>;

ports padded(ports given) {
  given.resize(PRIVATE_RANGE_PORTS, NO_PORT);
  return given;
}

std::vector<ports> each_padded(std::vector<ports> given) {
  for (ports &each : given) each = padded(each);
  return given;
}

const message NO_MEMORY{L_ERR, "Could not allocate memory for port_m->private_range\n"};

class PrivateRangesTest : public PortTest {
 protected:
  static constexpr int32_t TOP = 115;

  void SetUp() override {
    PortTest::SetUp();
    set_all_bounds(MIN, TOP);
  }

  static std::vector<ports> ranges(const port_m *m) {
    std::vector<ports> out;
    for (int32_t i = 0; i < m->private_range_count; ++i) out.push_back(range_of(m, i));
    return out;
  }

  // The ports whose entry is marked private; every other bit has to be clear.
  static ports marked(const port_m *m) {
    ports out;
    for (int32_t port = m->min_port; port <= m->max_port; ++port) {
      const int entry = m->port_map[port - m->min_port];
      EXPECT_TRUE(entry == 0 || entry == PORT_PRIVATE) << port;
      if (entry == PORT_PRIVATE) out.push_back(port);
    }
    return out;
  }
};

// What a file adds to two of the maps, and which ports of the first it marks.
struct file_case {
  const char *shows;
  std::string text;
  std::vector<ports> internal;
  ports marked;
  std::vector<ports> external = {};
};

const file_case FILES[] = {
    {"FewerThanTenPortsAreFilledUp", "INT 101 102\n", {{101, 102}}, {101, 102}},
    {"TenPortsAreTakenAndTheRestOfTheLineIgnored",
     "INT 101 102 103 104 105 106 107 108 109 110 111 junk\n",
     {{101, 102, 103, 104, 105, 106, 107, 108, 109, 110}},
     {101, 102, 103, 104, 105, 106, 107, 108, 109, 110}},
    {"RangesOfOneMapStandInTheOrderOfTheFile",
     "INT 105\nEXT 101\nINT 103 102\nINT 105 104\n",
     {{105}, {103, 102}, {105, 104}},
     {102, 103, 104, 105},
     {{101}}},
    {"PortsNeedNotBeAdjacentAscendingOrDistinct",
     "INT 110 101 101 104 110\n",
     {{110, 101, 101, 104, 110}},
     {101, 104, 110}},
    {"WordAloneAddsARangeOfNoPorts", "INT\nINT 101\n", {{}, {101}}, {101}},
    {"EmptyLineRepeatsTheMapBefore",
     "INT 101\n\n   \t\nEXT 102\n\n",
     {{101}, {}, {}},
     {101},
     {{102}, {}}},
    {"UnknownWordRepeatsTheMapBeforeWithItsOwnPorts",
     "INT 101\next 102 103\n# 104\n",
     {{101}, {102, 103}, {104}},
     {101, 102, 103, 104}},
    {"ScanStopsAtTheFirstWordThatIsNoNumber",
     "INT 101 x 102\nINT 103 104abc 105\nINT abc\nINT 106.5 107\n",
     {{101}, {103, 104}, {}, {106}},
     {101, 103, 104, 106}},
    {"NumbersOfALineBeforeAreNotSeenAgain",
     "INT 101 102 103\nINT 104\n",
     {{101, 102, 103}, {104}},
     {101, 102, 103, 104}},
    {"AnyWhiteSpaceSeparates", " \tINT\t101   102\v103\r\n", {{101, 102, 103}}, {101, 102, 103}},
    {"LastLineNeedsNoLineFeed", "INT 101\nEXT 102 103", {{101}}, {101}, {{102, 103}}},
    {"LongLineIsReadWhole",
     "INT" + std::string(100000, ' ') + "101" + std::string(100000, ' ') + "102\nEXT 103\n",
     {{101, 102}},
     {101, 102},
     {{103}}},
    {"ZeroByteEndsItsLine",
     std::string("INT 101 102\0 103\nEXT 104\n", 25),
     {{101, 102}},
     {101, 102},
     {{104}}},
    {"WordLongerThanItsRoomIsAnUnknownWord",
     "INT 101\n" + std::string(5000, 'W') + " 102 103\nEXT 104\nINT" + std::string(40, 'x') +
         " 105\n",
     {{101}, {102, 103}},
     {101, 102, 103},
     {{104}, {105}}},
    {"RestOfALongWordIsNoNumber",
     "INT 101\n" + std::string(31, 'W') + "115 102\n" + std::string(60, '7') + " 103\n",
     {{101}, {102}, {103}},
     {101, 102, 103}},
    {"MapsWordIsReadToItsEnd",
     "EXT 101\nINT" + std::string(28, ' ') + "102\nEXT" + std::string(28, 'x') + " 103\n",
     {{102}, {103}},
     {102, 103},
     {{101}}},
    {"PortsOutsideTheMapAreKeptAndMarkedNowhere",
     "INT 99 101 116 -7 2147483647 -2147483648 0\n",
     {{99, 101, 116, -7, 2147483647, -2147483647 - 1, 0}},
     {101}},
    {"MinusOneIsListedAsItStands", "INT 101 102 -1 103\n", {{101, 102, -1, 103}}, {101, 102, 103}},
};

std::ostream &operator<<(std::ostream &out, const file_case &shown) { return out << shown.shows; }

class PrivateRangeFileTest : public PrivateRangesTest,
                             public testing::WithParamInterface<file_case> {};

TEST_P(PrivateRangeFileTest, AddsTheseRangesAndMarks) {
  start(GetParam().text);
  EXPECT_EQ(ranges(port_m_int), each_padded(GetParam().internal));
  EXPECT_EQ(marked(port_m_int), GetParam().marked);
  EXPECT_EQ(ranges(port_m_ext), each_padded(GetParam().external));
}

INSTANTIATE_TEST_SUITE_P(All, PrivateRangeFileTest, testing::ValuesIn(FILES),
                         [](const auto &tested) { return std::string(tested.param.shows); });

TEST_F(PrivateRangesTest, EachWordHasItsMap) {
  start("STATIC_EXT 104\nEXT 102\nSTATIC_INT 103\nINT 101\n");
  int32_t port = 101;
  for (const port_m *m : {port_m_int, port_m_ext, port_m_static_int, port_m_static_ext}) {
    EXPECT_THAT(ranges(m), ElementsAre(padded({port})));
    EXPECT_THAT(marked(m), ElementsAre(port++));
  }
}

TEST_F(PrivateRangesTest, PortsOutsideTheMapAreNeverFreeAndMinusOneEndsTheRange) {
  start("INT 99 101 116\nINT 102 103 -1 104\n");
  EXPECT_EQ(find_free_port_in_range(port_m_int, 99), 101);
  set_port(port_m_int, 101);
  EXPECT_EQ(find_free_port_in_range(port_m_int, 99), NO_PORT);
  set_port(port_m_int, 103);
  EXPECT_EQ(find_free_port_in_range(port_m_int, 102), NO_PORT);
}

TEST_F(PrivateRangesTest, LinesBeforeTheFirstKnownWordAreSkippedWithAWarningEach) {
  write_file("int 101\n\n102 103\nEXT 104\nint 105\n");
  ASSERT_TRUE(init_port_maps());
  EXPECT_EQ(standin::log_count(L_WARN), 3u);
  EXPECT_EQ(standin::log_count(L_ERR), 0u);
  for (const std::string &text : standin::log_texts(L_WARN)) EXPECT_EQ(text.back(), '\n');
  EXPECT_THAT(ranges(port_m_ext), ElementsAre(padded({104}), padded({105})));
  for (const port_m *other : {port_m_int, port_m_static_int, port_m_static_ext})
    EXPECT_EQ(other->private_range_count, 0);
}

TEST_F(PrivateRangesTest, EmptyFileIsReadWell) {
  write_file("");
  ASSERT_TRUE(init_port_maps());
  EXPECT_THAT(all_messages(),
              ElementsAre(dbg("Reading private port range file '" + path() + "' OK!\n")));
}

TEST_F(PrivateRangesTest, EachPortIsToldWithTheWordOfItsLine) {
  write_file("INT 101 200\nother 102\n\nEXT\n");
  ASSERT_TRUE(init_port_maps());
  EXPECT_THAT(all_messages(),
              ElementsAre(dbg("Port 101 was reserved to a private range for INT!\n"),
                          dbg("Port 200 was reserved to a private range for INT!\n"),
                          dbg("Port 102 was reserved to a private range for other!\n"),
                          dbg("Reading private port range file '" + path() + "' OK!\n")));
}

TEST_F(PrivateRangesTest, ListedBottomPortIsHandedOutFirstAllTheSame) {
  start("INT 100 101\n");
  EXPECT_EQ(port_m_int->next_free_port, 100);
  set_port(port_m_int, port_m_int->next_free_port);
  EXPECT_EQ(port_m_int->next_free_port, 102);
}

TEST_F(PrivateRangesTest, FullRangeThatIsTakenReportsExhaustion) {
  start("INT 100 101 102 103 104 105 106 107 108 109\n");
  for (int32_t port = 101; port <= 109; ++port) {
    EXPECT_EQ(find_free_port_in_range(port_m_int, 100), port);
    EXPECT_EQ(set_port(port_m_int, port), port_result::done);
  }
  standin::clear_logs();
  EXPECT_EQ(find_free_port_in_range(port_m_int, 100), NO_PORT);
  EXPECT_THAT(
      messages(),
      ElementsAre(err("No free port available for this private range with base port 100\n")));
  EXPECT_TRUE(is_port_free(port_m_int, 100)) << "the base port is never given out";
}

TEST_F(PrivateRangesTest, FileThatCannotBeOpenedIsAsGoodAsMissing) {
  start();
  write_file("INT 101\n");
  standin::fail_file_op("fopen", 1, EACCES);
  EXPECT_FALSE(load_port_range());
  EXPECT_EQ(port_m_int->private_range_count, 0);
  EXPECT_THAT(all_messages(),
              ElementsAre(dbg("Could not open file '" + path() + "' with private port range\n")));
}

TEST_F(PrivateRangesTest, LineThatCannotBeReadEndsTheFile) {
  write_file("INT 101\nINT 102\nINT 103\n");
  for (int n = 1; n <= 3; ++n) {
    standin::fail_file_op("getline", n, ENOMEM);
    ASSERT_TRUE(init_port_maps());
    EXPECT_EQ(port_m_int->private_range_count, n - 1);
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(standin::open_streams(), 0);
    destroy_port_maps();
  }
}

TEST_F(PrivateRangesTest, DirectoryInTheFilesPlaceHasNoLines) {
  std::filesystem::create_directory(path());
  ASSERT_TRUE(init_port_maps());
  EXPECT_EQ(port_m_int->private_range_count, 0);
  std::filesystem::remove(path());
}

TEST_F(PrivateRangesTest, MemoryThatIsShortEndsTheReadingWithTheCountRaised) {
  write_file("INT 101 102\nEXT 104\nINT 103\nEXT 105\n");
  // Behind the nine blocks of the maps there are two per line: the map's list, made longer, and the
  // record of the range.
  for (int line = 0; line < 4; ++line) {
    for (const bool list_fails : {true, false}) {
      SCOPED_TRACE(testing::Message() << "line " << line << (list_fails ? ", list" : ", record"));
      standin::clear_logs();
      standin::fail_at(pool::shm, static_cast<uint64_t>(10 + 2 * line + (list_fails ? 0 : 1)));
      ASSERT_TRUE(init_port_maps()) << "the start goes on without further ranges";
      EXPECT_THAT(messages(), ElementsAre(NO_MEMORY));
      EXPECT_EQ(standin::open_streams(), 0);
      EXPECT_EQ(port_m_int->private_range_count, line < 2 ? 1 : 2);
      EXPECT_EQ(port_m_ext->private_range_count, (line + 1) / 2);
      const port_m *const failed = line % 2 == 0 ? port_m_int : port_m_ext;
      const int32_t base = line % 2 == 0 ? 101 : 104;
      EXPECT_EQ(is_port_private(port_m_int, 101), line > 0) << "marks stay";
      if (list_fails) {
        EXPECT_EQ(failed->private_range, nullptr) << "earlier ranges go with it";
        EXPECT_EQ(find_free_port_in_range(failed, base), NO_PORT);
      } else {
        ASSERT_NE(failed->private_range, nullptr);
        EXPECT_EQ(failed->private_range[failed->private_range_count - 1], nullptr);
        if (line >= 2) {
          EXPECT_EQ(failed->private_range[0]->port[0], base) << "earlier ranges stay";
        }
      }
      EXPECT_EQ(find_free_port_in_range(failed, 103), NO_PORT);
      clear_port_maps();
      destroy_port_maps();
      EXPECT_EQ(standin::leak_report(pool::both), "");
      EXPECT_THAT(standin::memory_errors(), IsEmpty());
    }
  }
}

TEST_F(PrivateRangesTest, LoadAnswersMinusOneWhenMemoryIsShort) {
  for (const uint64_t n : {1u, 2u}) {
    std::filesystem::remove(path());
    start();
    write_file("INT 101\n");
    standin::fail_at(pool::shm, n);
    EXPECT_FALSE(load_port_range()) << n;
    EXPECT_THAT(messages(), ElementsAre(NO_MEMORY)) << n;
  }
}

TEST_F(PrivateRangesTest, ReadingNeedsNoPrivateMemoryOfTheHost) {
  write_file("INT 101\nEXT 102\n");
  standin::reset_allocation_count();
  ASSERT_TRUE(init_port_maps());
  EXPECT_EQ(standin::allocation_count(pool::pkg), 0u);
  EXPECT_EQ(standin::allocation_count(pool::shm), 13u);
}

TEST_F(PrivateRangesTest, ScanTellsWordPortsAndWhatIsPassedOver) {
  range_line line;
  EXPECT_TRUE(line.scan("  EXT 7 -8 x 9\n"));
  EXPECT_STREQ(line.word, "EXT");
  EXPECT_EQ(ports(line.numbers, line.numbers + line.count), (ports{7, -8}));
  EXPECT_STREQ(line.rest, " x 9\n");
  EXPECT_TRUE(line.scan("INT 1 2 3 4 5 6 7 8 9 10 11"));
  EXPECT_EQ(line.count, PRIVATE_RANGE_PORTS);
  EXPECT_STREQ(line.rest, " 11");
  EXPECT_TRUE(line.scan("STATIC_INT"));
  EXPECT_EQ(line.count, 0);
  EXPECT_STREQ(line.rest, "");
}

TEST_F(PrivateRangesTest, ScanOfALineWithoutAWordKeepsTheWordBefore) {
  range_line line;
  EXPECT_FALSE(line.scan(" \n"));
  EXPECT_STREQ(line.word, "");
  EXPECT_TRUE(line.scan("EXT 7"));
  EXPECT_FALSE(line.scan("\t\n"));
  EXPECT_STREQ(line.word, "EXT");
  EXPECT_EQ(line.count, 0);
}

TEST_F(PrivateRangesTest, PortOfALineIsMarkedInsideItsMapAndEndsTheRangeAsMinusOne) {
  start();
  range_line line;
  line.scan("INT -1 100 -1 115 116");
  const auto judged = [&line](int i) {
    const range_port port = judge_range_port(port_m_int, line, i);
    return std::tuple(port.number, port.is_marked, port.ends_range);
  };
  EXPECT_EQ(judged(0), std::tuple(-1, false, false)) << "a base port is found, whatever it is";
  EXPECT_EQ(judged(1), std::tuple(100, true, false));
  EXPECT_EQ(judged(2), std::tuple(-1, false, true));
  EXPECT_EQ(judged(3), std::tuple(115, true, false));
  EXPECT_EQ(judged(4), std::tuple(116, false, false));
}

}  // namespace
