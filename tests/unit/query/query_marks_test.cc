// Where the marks of a text are found, beside a look at each of its characters.
#include "query/text/query_marks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// In a block of its own, so that a look beyond its end is noticed.
std::vector<uint32_t> places_in(const std::string &text, bool *tell) {
  const std::vector<char> exact(text.begin(), text.end());
  const query_marks marks({exact.data(), exact.size()});
  *tell = marks.tell();
  const auto places = marks.places();
  return {places.begin(), places.end()};
}

TEST(QueryMarksTest, FindsEachSeparatorAtEachPlaceOfTextsOfEachLength) {
  for (size_t length = 1; length <= 70; length++) {
    for (size_t place = 0; place < length; place++) {
      for (const char separator : {'|', ','}) {
        std::string text(length, 'x');
        text[place] = separator;
        bool tell;
        EXPECT_EQ(places_in(text, &tell), std::vector<uint32_t>{static_cast<uint32_t>(place)});
        EXPECT_TRUE(tell);
      }
    }
  }
}

TEST(QueryMarksTest, FindsNeighbouringSeparatorsInTheirOrder) {
  for (size_t length = 0; length <= 70; length++) {
    bool tell;
    std::vector<uint32_t> all(length);
    for (uint32_t i = 0; i < length; i++) all[i] = i;
    EXPECT_EQ(places_in(std::string(length, '|'), &tell), all);
    EXPECT_TRUE(tell) << length;
  }
}

TEST(QueryMarksTest, TellsNothingOfATextWithAnEscapeOrAZeroByte) {
  for (size_t length = 1; length <= 70; length++) {
    for (size_t place = 0; place < length; place++) {
      for (const char other : {'\\', '\0'}) {
        std::string text(length, 'x');
        text[place] = other;
        bool tell;
        places_in(text, &tell);
        EXPECT_FALSE(tell) << length << " " << place;
      }
    }
  }
}

TEST(QueryMarksTest, NoOtherByteIsAMark) {
  for (int byte = 1; byte < 256; byte++) {
    const auto c = static_cast<char>(byte);
    if (c == '|' || c == ',' || c == '\\') continue;
    for (const size_t length : {5, 16, 21}) {
      bool tell;
      EXPECT_TRUE(places_in(std::string(length, c), &tell).empty()) << byte;
      EXPECT_TRUE(tell) << byte;
    }
  }
}

TEST(QueryMarksTest, TellsNothingOfATextWithMoreSeparatorsThanThereIsRoomFor) {
  for (size_t count = 100; count < 300; count++) {
    bool tell;
    const std::vector<uint32_t> found = places_in(std::string(count, ','), &tell);
    EXPECT_LE(found.size(), query_marks::CAPACITY);
    EXPECT_EQ(tell, found.size() == count) << count;
    EXPECT_EQ(tell, count <= query_marks::CAPACITY) << count;
  }
}

}  // namespace
