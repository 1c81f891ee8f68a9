// Counting readers, and moving retired rows on.
#include "tables/shared/read_section.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>

#include "tables/shared/shared_memory.h"

namespace {

constexpr uint32_t NONE = UINT32_MAX;

read_sections *sections_in_use;

// Which count this process has. Children of a process that has one share it with them.
uint32_t own_count = NONE;

bool nobody_inside(read_sections *all, uint32_t turn) {
  const uint32_t given = std::min(std::atomic_ref(all->readers).load(), READER_COUNTS);
  for (uint32_t i = 0; i < given; i++)
    if (std::atomic_ref(all->counts[i].inside[turn]).load() != 0) return false;
  return true;
}

// A worker that retires a row holds a table's lock. It is kept by three times this many others at
// the most.
constexpr size_t MOST_AT_ONCE = 64;

// Frees so many rows of a list and gives the others.
memdb_row *free_some(read_sections *all, memdb_row *row, size_t most) {
  uint32_t freed = 0;
  for (; row != nullptr && freed < most; freed++) tarn_shm_free(std::exchange(row, row->prev));
  std::atomic_ref(all->waiting).fetch_sub(freed, std::memory_order_relaxed);
  return row;
}

void push_retired(read_sections *all, memdb_row *row) {
  // Ahead of the push, so that who frees the row never takes it from a count of 0.
  std::atomic_ref(all->waiting).fetch_add(1, std::memory_order_relaxed);
  const std::atomic_ref retired(all->retired);
  row->prev = retired.load(std::memory_order_relaxed);
  while (!retired.compare_exchange_weak(row->prev, row)) {
  }
}

bool anything_waits(read_sections *all) {
  return std::atomic_ref(all->retired).load(std::memory_order_relaxed) != nullptr ||
         std::atomic_ref(all->passed_none).load(std::memory_order_relaxed) != nullptr ||
         std::atomic_ref(all->passed_one).load(std::memory_order_relaxed) != nullptr;
}

// Frees up to most rows that no reader can be on, and lets the others come nearer to that.
void move_on(read_sections *all, size_t most) {
  // Whoever comes while another is at it leaves the rest to a later removal.
  if (std::atomic_ref(all->moving).exchange(1) != 0) return;
  const std::atomic_ref turn(all->turn);
  const std::atomic_ref passed_none(all->passed_none);
  const std::atomic_ref passed_one(all->passed_one);
  // A reader may have read the turn and not yet be counted when it changes. It has looked at no row
  // then, but it may at rows that are retired later, under a turn that isn't its own: so a row has
  // to see both counts empty after it was retired. Three moves do that where nobody reads.
  for (int moves = 0; moves < 3 && nobody_inside(all, turn.load() ^ 1); moves++) {
    // A list is taken from its head before anything is done with it, so that a process that is
    // killed here leaves no row that would be freed twice.
    passed_one.store(free_some(all, passed_one.exchange(nullptr), most));
    if (passed_one.load() != nullptr) break;
    passed_one.store(passed_none.exchange(nullptr));
    passed_none.store(std::atomic_ref(all->retired).exchange(nullptr));
    turn.store(turn.load() ^ 1);
  }
  std::atomic_ref(all->moving).store(0, std::memory_order_release);
}

}  // namespace

void use_read_sections(read_sections *all) {
  sections_in_use = all;
  own_count = NONE;
}

read_section::read_section() {
  read_sections *const all = sections_in_use;
  if (all == nullptr) return;
  if (own_count == NONE) own_count = std::atomic_ref(all->readers).fetch_add(1) % READER_COUNTS;
  inside_ = &all->counts[own_count].inside[std::atomic_ref(all->turn).load()];
  std::atomic_ref(*inside_).fetch_add(1);
}

read_section::~read_section() {
  if (inside_ != nullptr) std::atomic_ref(*inside_).fetch_sub(1, std::memory_order_release);
}

void retire_row(memdb_row *row) {
  read_sections *const all = sections_in_use;
  if (all == nullptr) {
    tarn_shm_free(row);
    return;
  }
  // Either this process sees the reader counted, or the reader sees the row gone.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (nobody_inside(all, 0) && nobody_inside(all, 1))
    tarn_shm_free(row);
  else
    push_retired(all, row);
  if (anything_waits(all)) move_on(all, MOST_AT_ONCE);
}

void settle_retired_rows() {
  read_sections *const all = sections_in_use;
  if (all != nullptr && anything_waits(all)) move_on(all, SIZE_MAX);
}

uint32_t retired_row_count() {
  read_sections *const all = sections_in_use;
  return all != nullptr ? std::atomic_ref(all->waiting).load(std::memory_order_relaxed) : 0;
}

void free_retired_rows() {
  read_sections *const all = sections_in_use;
  if (all == nullptr) return;
  for (memdb_row **list : {&all->retired, &all->passed_none, &all->passed_one})
    free_some(all, std::exchange(*list, nullptr), SIZE_MAX);
}
