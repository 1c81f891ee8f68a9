// Sorting rows by numbers that stand for parts of their texts.
#include "memdb/index/text_order.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "memdb/index/link.h"

namespace {

using words = std::span<uint64_t>;

// A row's text is far away, and is asked for so many rows ahead.
constexpr size_t AHEAD = 16;
// Up to so many rows are sorted by comparing.
constexpr size_t FEW = 64;
// From so many on the rows' addresses tell in which order they are visited.
constexpr size_t MANY = 4096;
// Parts of texts that are looked at before the rest is compared as a whole.
constexpr int MOST_PARTS = 16;
// Of so many rows the beginning is taken that all share.
constexpr size_t SAMPLE = 64;

constexpr size_t PART = sizeof(uint64_t);
constexpr uint64_t BYTE = 0xFF;

// A digit of a radix sort.
constexpr int DIGIT_BITS = 8;
constexpr size_t DIGIT_VALUES = size_t{1} << DIGIT_BITS;
constexpr size_t MOST_DIGITS = 4;
using digit_counts = std::array<uint64_t, DIGIT_VALUES>;

// The values that the bytes of a part have, by their place in it.
using byte_values = std::array<std::array<bool, BYTE + 1>, PART>;
// What each adds to the part's number.
using byte_shares = std::array<std::array<uint64_t, BYTE + 1>, PART>;

const char *text_at(uint64_t address, const memdb_col *col) {
  return memdb_text_of(memdb_row_at(address), col);
}

void ask_for(const char *text, size_t place) {
  __builtin_prefetch(text);
  __builtin_prefetch(text + place);
}

// Makes each count the sum of those ahead of it.
void add_up(digit_counts &counts) {
  uint64_t sum = 0;
  for (uint64_t &count : counts) sum += std::exchange(count, sum);
}

// Bits that a number needs. std::bit_width's result is another type from one library to the next.
int bits_of(uint64_t number) { return 64 - std::countl_zero(number); }

// Addresses as multiples of their common alignment above the lowest one, in a word's lower bits.
struct address_form {
  uint64_t lowest;
  int alignment;
  int bits;

  uint64_t pack(uint64_t address) const { return (address - lowest) >> alignment; }
  uint64_t unpack(uint64_t word) const {
    return lowest + ((word & ((uint64_t{1} << bits) - 1)) << alignment);
  }
};

address_form form_of(words rows) {
  uint64_t lowest = rows[0];
  uint64_t highest = rows[0];
  uint64_t differing = 0;
  for (const uint64_t address : rows) {
    lowest = std::min(lowest, address);
    highest = std::max(highest, address);
    differing |= address ^ rows[0];
  }
  const int alignment = std::countr_zero(differing | uint64_t{1} << 47);
  return {lowest, alignment, bits_of((highest - lowest) >> alignment)};
}

// Puts the rows into the order of their addresses, roughly: those of neighbouring pages side by
// side, so that they aren't looked up again and again.
[[gnu::noinline]] void place_by_address(words rows, words to, const address_form &form) {
  if (rows.size() < MANY) {
    std::copy(rows.begin(), rows.end(), to.begin());
    return;
  }
  const int left_out = std::max(form.bits - DIGIT_BITS, 0);
  digit_counts counts{};
  for (const uint64_t address : rows) counts[form.pack(address) >> left_out]++;
  add_up(counts);
  for (const uint64_t address : rows) to[counts[form.pack(address) >> left_out]++] = address;
}

size_t common_length(const char *a, const char *b, size_t most) {
  size_t length = 0;
  while (length < most && a[length] == b[length] && a[length] != '\0') length++;
  return length;
}

// How many bytes the texts of some of the rows have in common with the first one's.
size_t shared_beginning(words rows, const memdb_col *col) {
  size_t length = col->size - 1;
  const size_t step = (rows.size() - 1) / SAMPLE + 1;
  for (size_t i = step; i < rows.size(); i += step)
    length = common_length(text_at(rows[0], col), text_at(rows[i], col), length);
  return length;
}

// The bytes from place on, the first one highest. What is behind a text's end tells nothing of its
// order, and does no harm, as texts that differ do so up to there.
uint64_t part_of(const char *text, size_t place, const memdb_col *col) {
  // At the end of the column bytes ahead of the part are read too, its link's or the text's, and
  // none behind, which may be no row's.
  const size_t missing = place + PART > col->size ? place + PART - col->size : 0;
  uint64_t bytes;
  memcpy(&bytes, text + place - missing, PART);
  return __builtin_bswap64(bytes >> 8 * missing);
}

uint8_t byte_of(uint64_t part, size_t place) {
  return static_cast<uint8_t>(part >> 8 * (PART - 1 - place));
}

// Keeps the rows whose texts begin as that one does, and tells their parts from place on. The
// others, of which there are few, go to the end of parts, that is as long as rows. Gives how many
// were kept.
size_t read_parts(words rows, words parts, const char *beginning, size_t place,
                  const memdb_col *col, byte_values &occurring) {
  size_t kept = 0;
  size_t others = rows.size();
  for (size_t i = 0; i < rows.size(); i++) {
    ask_for(text_at(rows[std::min(i + AHEAD, rows.size() - 1)], col), place);
    const char *const text = text_at(rows[i], col);
    if (memcmp(text, beginning, place) != 0) {
      parts[--others] = rows[i];
      continue;
    }
    const uint64_t part = part_of(text, place, col);
    for (size_t at = 0; at < PART; at++) occurring[at][byte_of(part, at)] = true;
    rows[kept] = rows[i];
    parts[kept++] = part;
  }
  return kept;
}

// Shares such that numbers are in the order of their parts, and no higher than need be: values that
// don't occur in a place take no room. Gives the bits of the highest number.
int share_out(const byte_values &occurring, byte_shares &shares) {
  uint64_t unit = 1;
  uint64_t highest = 0;
  for (size_t place = PART; place-- > 0;) {
    uint64_t share = 0;
    for (size_t value = 0; value <= BYTE; value++) {
      shares[place][value] = share;
      if (occurring[place][value]) share += unit;
    }
    highest += share - unit;
    unit = share;
  }
  return bits_of(highest);
}

// A radix sort from the lowest digit up (Knuth, "The Art of Computer Programming", volume 3,
// section 5.2.5, algorithm R, with counting), by the words' bits from a lowest one on, so many of
// the upper ones at first that few words are alike in them.
class radix_sort {
 public:
  radix_sort(int lowest, int bits, size_t count) : lowest_(lowest) {
    const size_t most = count < MANY ? MOST_DIGITS - 1 : MOST_DIGITS;
    while (digits_ < most && static_cast<int>(digits_) * DIGIT_BITS < bits) digits_++;
    const int of_all = digits_ > 0 ? (bits - 1) / static_cast<int>(digits_) + 1 : 0;
    width_ = std::min(of_all, DIGIT_BITS);
    left_out_ = lowest + std::max(bits - static_cast<int>(digits_) * width_, 0);
  }

  void count(uint64_t word) {
    for (size_t digit = 0; digit < digits_; digit++) counts_[digit][value_of(word, digit)]++;
  }

  // Sorts what was counted. Gives where it is then.
  words sort(words from, words to) {
    for (size_t digit = 0; digit < digits_; digit++) {
      add_up(counts_[digit]);
      for (const uint64_t word : from) to[counts_[digit][value_of(word, digit)]++] = word;
      std::swap(from, to);
    }
    if (left_out_ == lowest_) return from;
    for (size_t i = 0; i < from.size();) {
      const size_t first = i++;
      while (i < from.size() && from[i] >> left_out_ == from[first] >> left_out_) i++;
      if (i - first > 1) std::sort(&from[first], from.data() + i);
    }
    return from;
  }

 private:
  uint64_t value_of(uint64_t word, size_t digit) const {
    return word >> (left_out_ + static_cast<int>(digit) * width_) & ((uint64_t{1} << width_) - 1);
  }

  int lowest_;    // bit that counts
  int left_out_;  // bits below the lowest digit
  int width_;     // bits of a digit
  size_t digits_ = 0;
  std::array<digit_counts, MOST_DIGITS> counts_{};
};

// Sorts the rows by their parts. They become words in spare then, of a number and, below it, an
// address as the form has it.
[[gnu::noinline]] void sort_by_parts(words rows, words parts, const byte_values &occurring,
                                     const address_form &form) {
  byte_shares shares;
  const int bits = share_out(occurring, shares);
  const int lost = std::max(bits + form.bits - 64, 0);
  radix_sort sort(form.bits, bits - lost, rows.size());
  for (size_t i = 0; i < rows.size(); i++) {
    uint64_t number = 0;
    for (size_t place = 0; place < PART; place++) number += shares[place][byte_of(parts[i], place)];
    parts[i] = number >> lost << form.bits | form.pack(rows[i]);
    sort.count(parts[i]);
  }
  const words sorted = sort.sort(parts, rows);
  if (sorted.data() != rows.data()) std::copy(sorted.begin(), sorted.end(), rows.begin());
}

void sort_by_comparing(words rows, const memdb_col *col) {
  std::sort(rows.begin(), rows.end(),
            [col](uint64_t a, uint64_t b) { return strcmp(text_at(a, col), text_at(b, col)) < 0; });
}

void order(words rows, words spare, const memdb_col *col, int parts) {
  if (rows.size() <= FEW || parts == 0) {
    sort_by_comparing(rows, col);
    return;
  }
  const address_form form = form_of(rows);
  const size_t shared = shared_beginning(rows, col);
  const char *const beginning = text_at(rows[0], col);
  place_by_address(rows, spare, form);
  byte_values occurring{};
  const size_t kept = read_parts(spare, rows, beginning, shared, col, occurring);
  sort_by_parts(spare.first(kept), rows.first(kept), occurring, form);

  const words others = rows.subspan(kept);
  const auto behind = std::partition(others.begin(), others.end(), [=](uint64_t address) {
    return memcmp(text_at(address, col), beginning, shared) < 0;
  });
  const auto ahead = static_cast<size_t>(behind - others.begin());
  std::copy(others.begin(), behind, rows.begin());
  const words among = rows.subspan(ahead, kept);
  const auto are_alike = [&](size_t a, size_t b) {
    return spare[a] >> form.bits == spare[b] >> form.bits;
  };
  for (size_t i = 0; i < kept;) {
    const size_t first = i;
    do {
      // Texts that are going to be compared.
      const size_t later = i + AHEAD;
      if (later + 1 < kept && are_alike(later, later + 1)) {
        ask_for(text_at(form.unpack(spare[later]), col), shared + PART);
        ask_for(text_at(form.unpack(spare[later + 1]), col), shared + PART);
      }
      among[i] = form.unpack(spare[i]);
      i++;
    } while (i < kept && are_alike(first, i));
    if (i - first > 1)
      order(among.subspan(first, i - first), spare.subspan(first, i - first), col, parts - 1);
  }
  if (ahead > 0) order(rows.first(ahead), spare.first(ahead), col, parts - 1);
  const size_t end = ahead + kept;
  if (end < rows.size()) order(rows.subspan(end), spare.subspan(end), col, parts - 1);
}

}  // namespace

void memdb_order_by_text(words rows, words spare, const memdb_col *col) {
  order(rows, spare, col, MOST_PARTS);
}
