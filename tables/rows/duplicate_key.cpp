// Copying the compared columns.
#include "tables/rows/duplicate_key.h"

#include <cstring>

namespace {

constexpr size_t BLOCK_PER_COLUMN = 264;
constexpr size_t TEXTS_PER_COLUMN = 64;  // the texts begin at column count times this

bool compares_all(const tarn_tbl *table) { return !holds_ports(*table) && table->use_index == 0; }

}  // namespace

duplicate_key::duplicate_key(const tarn_tbl *table, const query_in *in)
    : count_(table->tbl->col_cnt), size_(size_t{count_} * BLOCK_PER_COLUMN), wanted_(in->flds) {
  if (!compares_all(table)) copy_compared(table, in);
}

bool duplicate_key::compares(const tarn_tbl *table, uint32_t col) {
  if (holds_ports(*table)) return col >= 1 && col <= 3;
  return table->use_index == 0 || col != 0;
}

void duplicate_key::copy_compared(const tarn_tbl *table, const query_in *in) {
  block_.reset(pkg_array<char>(size_));
  auto **const wanted = reinterpret_cast<char **>(block_.get());
  wanted_ = wanted;
  if (!block_) return;
  for (uint32_t i = 0; i < count_; i++) {
    wanted[i] = nullptr;
    if (!compares(table, i) || in->flds[i] == nullptr) continue;
    wanted[i] = block_.get() + size_t{count_} * TEXTS_PER_COLUMN + i * SLOT;
    copy(i, in->flds[i]);
  }
}

void duplicate_key::copy(uint32_t col, const char *value) {
  const size_t start = size_t{count_} * TEXTS_PER_COLUMN + col * SLOT;
  char *const slot = block_.get() + start;
  const size_t len = strnlen(value, size_ - start - 1);
  memcpy(slot, value, len);
  slot[len] = '\0';
}
