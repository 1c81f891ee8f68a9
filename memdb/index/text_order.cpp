// Sorting rows by numbers that stand for parts of their texts.
#include "memdb/index/text_order.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "memdb/index/link.h"

namespace {

using numbered_rows = std::span<memdb_numbered_row>;

// A row's text is far away, and is asked for so many rows ahead.
constexpr size_t AHEAD = 16;
// Up to so many rows are sorted by comparing.
constexpr size_t FEW = 32;
// Parts of texts that are looked at before the rest is compared as a whole.
constexpr int MOST_PARTS = 16;
// Of so many rows the beginning is taken that all share.
constexpr size_t SAMPLE = 64;

constexpr size_t PART = sizeof(uint64_t);
constexpr uint64_t LAST_BYTE = 0xFF;

// The bytes of a part by place and value, each with the share that it has in the part's number.
using byte_shares = std::array<std::array<uint64_t, 256>, PART>;

bool is_less(const char *a, const char *b) { return strcmp(a, b) < 0; }

size_t common_length(const char *a, const char *b, size_t most) {
  size_t length = 0;
  while (length < most && a[length] == b[length] && a[length] != '\0') length++;
  return length;
}

// How many bytes the texts of some of the rows have in common with the first one's.
size_t shared_beginning(numbered_rows rows, const memdb_col *col) {
  const char *const first = memdb_text_of(rows[0].row, col);
  size_t length = col->size - 1;
  const size_t step = rows.size() / SAMPLE + 1;
  for (size_t i = step; i < rows.size(); i += step)
    length = common_length(first, memdb_text_of(rows[i].row, col), length);
  return length;
}

// The bytes from place on, the first one highest; those behind the text's end are 0.
uint64_t part_of(const char *text, size_t place, const memdb_col *col) {
  // At the end of the column the bytes ahead of the part are read too, the link's among them, and
  // none behind, which may be no row's.
  const size_t missing = place + PART > col->size ? place + PART - col->size : 0;
  uint64_t bytes;
  memcpy(&bytes, text + place - missing, PART);
  bytes >>= 8 * missing;
  constexpr uint64_t ONES = 0x0101010101010101;
  constexpr uint64_t HIGHEST = 0x8080808080808080;
  // The lowest bit is exact: it is the first byte's that is 0.
  const uint64_t ends = (bytes - ONES) & ~bytes & HIGHEST;
  if (ends != 0) bytes &= ((ends & -ends) >> 7) - 1;
  return __builtin_bswap64(bytes);
}

uint8_t byte_at(uint64_t part, size_t place) {
  return static_cast<uint8_t>(part >> 8 * (PART - 1 - place) & LAST_BYTE);
}

// Rows whose texts have a beginning in common, and those that lie ahead of them and behind.
struct divided_rows {
  numbered_rows ahead;
  numbered_rows among;
  numbered_rows behind;
  size_t shared;
};

// Divides the rows by the beginning that some of them share, and numbers those that have it, by the
// part of their texts that follows.
[[gnu::noinline]] divided_rows number(numbered_rows rows, const memdb_col *col) {
  const size_t shared = shared_beginning(rows, col);
  const char *const beginning = memdb_text_of(rows[0].row, col);
  std::array<std::array<bool, 256>, PART> occurs{};
  size_t first = 0;
  size_t end = rows.size();
  for (size_t i = 0; i < end;) {
    const char *const later = memdb_text_of(rows[std::min(i + AHEAD, end - 1)].row, col);
    __builtin_prefetch(later);
    __builtin_prefetch(later + shared);
    const char *const text = memdb_text_of(rows[i].row, col);
    const int order = memcmp(text, beginning, shared);
    if (order > 0) {
      std::swap(rows[i], rows[--end]);
      continue;
    }
    const uint64_t part = part_of(text, shared, col);
    rows[i].number = part;
    if (order == 0)
      for (size_t place = 0; place < PART; place++) occurs[place][byte_at(part, place)] = true;
    else
      std::swap(rows[i], rows[first++]);
    i++;
  }
  const numbered_rows among = rows.subspan(first, end - first);

  // Bytes that don't occur in a place take no room in the numbers, which get short by that.
  byte_shares shares;
  uint64_t unit = 1;
  for (size_t place = PART; place-- > 0;) {
    uint64_t share = 0;
    for (size_t byte = 0; byte < 256; byte++) {
      shares[place][byte] = share;
      if (occurs[place][byte]) share += unit;
    }
    unit = share;
  }
  for (memdb_numbered_row &each : among) {
    const uint64_t part = each.number;
    each.number = 0;
    for (size_t place = 0; place < PART; place++)
      each.number += shares[place][byte_at(part, place)];
  }
  return {rows.first(first), among, rows.subspan(end), shared};
}

// A radix sort from the lowest digit up (Knuth, "The Art of Computer Programming", volume 3,
// section 5.2.5, algorithm R, with counting): by the upper bits of the numbers, so many that most
// rows differ in them. Gives how many lower bits are left out.
[[gnu::noinline]] int sort_by_upper_bits(numbered_rows rows, numbered_rows spare) {
  constexpr int DIGIT = 11;
  constexpr int MOST_DIGITS = 3;
  constexpr size_t MANY = size_t{1} << 16;
  uint64_t highest = 0;
  for (const memdb_numbered_row &each : rows) highest = std::max(highest, each.number);
  const int bits = std::bit_width(highest);
  const int most_digits = rows.size() < MANY ? MOST_DIGITS - 1 : MOST_DIGITS;
  const int digits = std::min((bits + DIGIT - 1) / DIGIT, most_digits);
  const int left_out = std::max(bits - digits * DIGIT, 0);
  const auto digit_of = [left_out](const memdb_numbered_row &each, int digit) {
    return each.number >> (left_out + digit * DIGIT) & ((1U << DIGIT) - 1);
  };

  std::array<std::array<size_t, 1U << DIGIT>, MOST_DIGITS> ends{};
  for (const memdb_numbered_row &each : rows)
    for (int digit = 0; digit < digits; digit++) ends[digit][digit_of(each, digit)]++;
  numbered_rows from = rows;
  numbered_rows to = spare.first(rows.size());
  for (int digit = 0; digit < digits; digit++) {
    size_t sum = 0;
    for (size_t &place : ends[digit]) sum += std::exchange(place, sum);
    for (const memdb_numbered_row &each : from) to[ends[digit][digit_of(each, digit)]++] = each;
    std::swap(from, to);
  }
  if (from.data() != rows.data()) std::copy(from.begin(), from.end(), rows.begin());
  return left_out;
}

void sort_by_numbers(numbered_rows rows, numbered_rows spare) {
  const auto is_lower = [](const memdb_numbered_row &a, const memdb_numbered_row &b) {
    return a.number < b.number;
  };
  constexpr size_t SOME = 512;
  if (rows.size() < SOME) {
    std::sort(rows.begin(), rows.end(), is_lower);
    return;
  }
  const int left_out = sort_by_upper_bits(rows, spare);
  if (left_out == 0) return;
  for (size_t i = 0; i < rows.size();) {
    const size_t first = i;
    while (++i < rows.size() && rows[i].number >> left_out == rows[first].number >> left_out) {
    }
    if (i - first > 1) std::sort(&rows[first], rows.data() + i, is_lower);
  }
}

void sort_by_comparing(numbered_rows rows, const memdb_col *col) {
  std::sort(rows.begin(), rows.end(),
            [col](const memdb_numbered_row &a, const memdb_numbered_row &b) {
              return is_less(memdb_text_of(a.row, col), memdb_text_of(b.row, col));
            });
}

void order(numbered_rows rows, numbered_rows spare, const memdb_col *col, int parts) {
  if (rows.size() <= 1) return;
  if (rows.size() <= FEW || parts == 0) {
    sort_by_comparing(rows, col);
    return;
  }
  const divided_rows divided = number(rows, col);
  const numbered_rows among = divided.among;
  sort_by_numbers(among, spare);
  order(divided.ahead, spare, col, parts - 1);
  for (size_t i = 0; i < among.size();) {
    const size_t first = i;
    while (++i < among.size() && among[i].number == among[first].number) {
    }
    order(among.subspan(first, i - first), spare, col, parts - 1);
    // The texts that are going to be compared.
    for (size_t later = first + AHEAD; later < i + AHEAD && later + 1 < among.size(); later++)
      if (among[later].number == among[later + 1].number)
        for (size_t twin = later; twin <= later + 1; twin++) {
          const char *const text = memdb_text_of(among[twin].row, col);
          __builtin_prefetch(text);
          __builtin_prefetch(text + divided.shared + PART);
        }
  }
  order(divided.behind, spare, col, parts - 1);
}

}  // namespace

void memdb_order_by_text(numbered_rows rows, numbered_rows spare, const memdb_col *col) {
  order(rows, spare, col, MOST_PARTS);
}
