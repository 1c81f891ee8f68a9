// Counting in shared memory.
#include "tables/table_counts.h"

#include <atomic>

#include "tables/shared/shared_memory.h"

namespace {

table_counts *all_counts;

uint64_t *place_of(const tarn_tbl *table, uint64_t table_counts::*what) {
  if (all_counts == nullptr) return nullptr;
  return &(all_counts[table - tarn_tbl_mngt->tables].*what);
}

}  // namespace

bool make_table_counts() {
  all_counts =
      static_cast<table_counts *>(tarn_shm_calloc(all_tarn_tbls().size(), sizeof(table_counts)));
  return all_counts != nullptr;
}

void free_table_counts() {
  tarn_shm_free(all_counts);
  all_counts = nullptr;
}

void count_for(const tarn_tbl *table, uint64_t table_counts::*what) {
  if (uint64_t *const count = place_of(table, what); count != nullptr)
    std::atomic_ref(*count).fetch_add(1, std::memory_order_relaxed);
}

void set_count(const tarn_tbl *table, uint64_t table_counts::*what, uint64_t value) {
  if (uint64_t *const count = place_of(table, what); count != nullptr)
    std::atomic_ref(*count).store(value, std::memory_order_relaxed);
}

uint64_t counted_for(const tarn_tbl *table, uint64_t table_counts::*what) {
  uint64_t *const count = place_of(table, what);
  return count != nullptr ? std::atomic_ref(*count).load(std::memory_order_relaxed) : 0;
}
