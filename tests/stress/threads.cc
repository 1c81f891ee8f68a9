// The engine's readers beside its writer as threads of one process, for the thread sanitizer: it
// follows what one thread publishes to another by the order of atomic accesses. Left out is what is
// a race by design and told as one: texts that are overwritten, and links at odd addresses, whose
// two words only a sequence of fences holds together.
//
// Usage: threads SECONDS
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "memdb/index/directory.h"
#include "memdb/memdb.h"
#include "memdb/prefix/prefix.h"

namespace {

constexpr uint32_t GROUP = 0;
constexpr uint32_t PREFIX = 1;
constexpr uint32_t KEY = 2;
constexpr size_t STEADY = 50;
constexpr size_t TWINS = 2;  // steady rows of each key
constexpr size_t MOST_OTHERS = 3000;
constexpr int READERS = 3;

std::atomic<bool> over;
std::atomic<size_t> newest;  // of the rows that come and go
std::atomic<uint64_t> searches;
std::atomic<uint64_t> look_ups;
std::vector<void *> retired;  // until the end, since no reader tells when it is done

// Half of the keys share a bucket.
std::string key_of(const char *kind, size_t i) {
  const std::string number = kind + std::to_string(i);
  return i % 2 == 0 ? number + "@sip.example.org" : number;
}
std::string prefix_of(size_t i) { return "4" + std::to_string(1000 + i); }

std::string other_group(size_t number) { return "g" + std::to_string(number % 7); }
std::string other_prefix(size_t number) { return prefix_of(number % 500); }
std::string other_key(size_t number) { return key_of("other", number); }

memdb_row *insert(memdb_tbl *tbl, const std::string &group, const std::string &prefix,
                  const std::string &key) {
  const char *const values[] = {group.c_str(), prefix.c_str(), key.c_str()};
  memdb_row *const row = memdb_insert(tbl, values);
  if (row == nullptr) abort();
  return row;
}

memdb_row *insert_other(memdb_tbl *tbl, size_t number) {
  newest.store(number, std::memory_order_relaxed);
  return insert(tbl, other_group(number), other_prefix(number), other_key(number));
}

[[noreturn]] void tell_missed(const char *what, const std::string &key) {
  fprintf(stderr, "threads: a %s of %s missed a row\n", what, key.c_str());
  exit(1);
}

size_t rows_of_key(memdb_tbl *tbl, const std::string &key) {
  const char *const wanted[] = {nullptr, nullptr, key.c_str()};
  memdb_cursor cursor;
  size_t met = 0;
  for (const memdb_row *row = memdb_select(tbl, wanted, &cursor); row != nullptr;
       row = memdb_select_next(&cursor))
    met++;
  return met;
}

int32_t rows_of_prefix(const memdb_tbl *tbl, const std::string &group, const std::string &prefix) {
  const std::string number = prefix + "5551234";
  const char *const wanted[] = {group.c_str(), nullptr, nullptr};
  const memdb_row *found[MEMDB_PREFIX_MOST_EQUAL];
  return memdb_longest_prefix(tbl, {PREFIX, number.c_str(), wanted, INT32_MAX}, found);
}

void read_steady_rows(memdb_tbl *tbl, size_t i) {
  if (rows_of_key(tbl, key_of("steady", i)) != TWINS) tell_missed("search", key_of("steady", i));
  searches.fetch_add(1, std::memory_order_relaxed);
  const int32_t count = rows_of_prefix(tbl, "steady", prefix_of(i));
  if (count == MEMDB_PREFIX_UNKNOWN) return;
  if (count != TWINS) tell_missed("look-up", prefix_of(i));
  look_ups.fetch_add(1, std::memory_order_relaxed);
}

// They may be there or not: what counts is that they are whole.
void read_other_rows(memdb_tbl *tbl, size_t number) {
  rows_of_key(tbl, other_key(number));
  rows_of_prefix(tbl, other_group(number), other_prefix(number));
}

void keep_reading(memdb_tbl *tbl, uint32_t seed) {
  for (std::minstd_rand random(seed); !over.load(std::memory_order_relaxed);) {
    read_steady_rows(tbl, random() % STEADY);
    read_other_rows(tbl, newest.load(std::memory_order_relaxed) + random() % 5);
  }
}

// Grows and shrinks, so that chains become directories and these parts, and back.
void grow_and_shrink(memdb_tbl *tbl, std::chrono::steady_clock::time_point end) {
  std::deque<memdb_row *> others;
  for (size_t number = 0; std::chrono::steady_clock::now() < end;) {
    for (; others.size() < MOST_OTHERS; number++) others.push_back(insert_other(tbl, number));
    for (; others.size() > 10; others.pop_front()) memdb_delete_row(tbl, others.front());
  }
}

}  // namespace

int main(int count, char **arguments) {
  if (count != 2) return 2;
  memdb_retire = [](void *block) {
    // Whoever keeps blocks may write there.
    std::atomic_ref(*static_cast<uint64_t *>(block)).store(~uint64_t{0}, std::memory_order_relaxed);
    retired.push_back(block);
  };
  memdb_directories = {.plain_rows = 100, .plain_chain = 4, .slots_in_one = 1 << 10};
  memdb_prefixes.slots_in_one = 1 << 10;
  // With these lengths every link is aligned.
  const tbl_dcl columns[] = {{14, 0}, {24, 0}, {31, MEMDB_COL_INDEXED}};
  memdb_tbl *const tbl = memdb_create_tbl(columns, 3);
  memdb_want_prefixes(tbl, PREFIX, 1U << GROUP);
  for (size_t i = 0; i < TWINS * STEADY; i++)
    insert(tbl, "steady", prefix_of(i % STEADY), key_of("steady", i % STEADY));

  std::vector<std::thread> readers;
  for (uint32_t i = 1; i <= READERS; i++) readers.emplace_back(keep_reading, tbl, i);
  grow_and_shrink(tbl, std::chrono::steady_clock::now() +
                           std::chrono::milliseconds(static_cast<int>(1000 * atof(arguments[1]))));
  over.store(true);
  for (std::thread &reader : readers) reader.join();

  const uint32_t conversions = tbl->cols[KEY].conversions;
  memdb_destroy_tbl(tbl);
  for (void *const block : retired) free(block);
  printf("threads: %llu searches and %llu look-ups beside a writer, %u conversions\n",
         static_cast<unsigned long long>(searches), static_cast<unsigned long long>(look_ups),
         conversions);
  return searches > 1000 && look_ups > 1000 && conversions > 2 ? 0 : 1;
}
