// From chain to directory and back.
//
// A directory is whole when the last row of each text leads nowhere. While it isn't, the last rows
// may lead to other texts' first ones, which no reader takes for more than the end of the text; the
// next writer may find it so if this one is killed.
#include <algorithm>
#include <array>
#include <atomic>
#include <span>

#include "memdb/index/directory_blocks.h"
#include "memdb/index/text_order.h"
#include "memdb/layout/hooks.h"

namespace {

bool same_text(const memdb_row *a, const memdb_row *b, const memdb_col *col) {
  return strcmp(memdb_text_of(a, col), memdb_text_of(b, col)) == 0;
}

// The last of the rows of one text that follow each other.
memdb_row *last_of_text(memdb_row *row, const memdb_col *col) {
  for (;;) {
    memdb_row *const next = memdb_read_link(memdb_link_of(row, col));
    if (next == nullptr || !same_text(row, next, col)) return row;
    row = next;
  }
}

struct chain_size {
  uint64_t rows = 0;
  uint64_t texts = 0;
  bool sorted = true;  // and all of them of this bucket; if not, the counts end where that shows
};

chain_size measure(memdb_row *const *bucket, const memdb_col *col) {
  chain_size size;
  const memdb_row *newer = nullptr;
  for (const memdb_row *row = *bucket; row != nullptr && size.sorted;
       row = memdb_read_link(memdb_link_of(row, col))) {
    const char *const text = memdb_text_of(row, col);
    const int order = newer == nullptr ? -1 : strcmp(memdb_text_of(newer, col), text);
    size.rows++;
    if (order != 0) size.texts++;
    size.sorted = order <= 0 && &col->idx[memdb_hash_str(text) % col->idx_len] == bucket;
    newer = row;
  }
  return size;
}

// The directory of a chain that is sorted, as a bucket's word; null without memory.
void *directory_of(memdb_row *chain, uint64_t texts, memdb_col *col) {
  void *const word = memdb_new_directory(texts);
  if (word == nullptr) return nullptr;
  const memdb_bucket_kind fresh(word);
  while (chain != nullptr) {
    if (!memdb_fill_directory(fresh, chain, col)) {
      memdb_directory_give_back(fresh, memdb_free);
      return nullptr;
    }
    chain = memdb_read_link(memdb_link_of(last_of_text(chain, col), col));
  }
  memdb_directory_is_whole(fresh, false);
  return word;
}

// Merges two chains of texts that differ, each sorted.
memdb_row *merge(memdb_row *a, memdb_row *b, memdb_col *col) {
  memdb_row *first = nullptr;
  memdb_row *last = nullptr;
  const auto append = [&](memdb_row *row) {
    if (last == nullptr)
      first = row;
    else if (memdb_read_link(memdb_link_of(last, col)) != row)
      memdb_write_link_beside_readers(memdb_link_of(last, col), row, col);
  };
  while (a != nullptr && b != nullptr) {
    memdb_row *&lower = strcmp(memdb_text_of(a, col), memdb_text_of(b, col)) < 0 ? a : b;
    append(lower);
    last = last_of_text(lower, col);
    lower = memdb_read_link(memdb_link_of(last, col));
  }
  append(a != nullptr ? a : b);
  return first;
}

// Rows that are on their way to the last ones of their texts, step by step together, as each step
// waits for memory.
class text_ends {
 public:
  explicit text_ends(memdb_col *col) : col_(col) {}

  // The last row of the text that a row is of, which leads nowhere, is to lead on to the next one.
  void lead_on(memdb_row *row, memdb_row *to) {
    memdb_row *const older = memdb_read_link(memdb_link_of(row, col_));
    if (older == nullptr) {
      memdb_write_link_beside_readers(memdb_link_of(row, col_), to, col_);
      return;
    }
    __builtin_prefetch(memdb_link_of(older, col_));
    under_way_[count_++] = {older, to};
    if (count_ == under_way_.size()) finish();
  }

  void finish() {
    while (count_ > 0)
      for (size_t i = 0; i < count_;) {
        const auto [row, to] = under_way_[i];
        memdb_row *const older = memdb_read_link(memdb_link_of(row, col_));
        if (older != nullptr) {
          __builtin_prefetch(memdb_link_of(older, col_));
          under_way_[i++].row = older;
          continue;
        }
        memdb_write_link_beside_readers(memdb_link_of(row, col_), to, col_);
        under_way_[i] = under_way_[--count_];
      }
  }

 private:
  struct step {
    memdb_row *row;
    memdb_row *to;
  };
  memdb_col *col_;
  std::array<step, 16> under_way_;
  size_t count_ = 0;
};

// Never too few.
uint64_t texts_of(memdb_bucket_kind kind) {
  uint64_t texts = 0;
  memdb_each_table(kind, [&](const memdb_slots *table) { texts += table->texts; });
  return texts;
}

// Makes the chain of a directory that is whole, by sorting its texts in memory of their own. False,
// with nothing done, if there is none.
bool link_by_order(memdb_bucket_kind kind, memdb_col *col, memdb_row **chain) {
  constexpr size_t AHEAD = 16;
  const uint64_t texts = texts_of(kind);
  auto *const block = static_cast<uint64_t *>(memdb_malloc_extra(2 * texts * sizeof(uint64_t)));
  if (block == nullptr) return false;
  size_t count = 0;
  memdb_each_table(kind, [&](const memdb_slots *table) {
    memdb_each_text(
        table, [&](memdb_row *newest) { block[count++] = reinterpret_cast<uintptr_t>(newest); });
  });
  // None where a writer was killed ahead of giving an empty directory back.
  const std::span rows(block, count);
  memdb_order_by_text(rows, {block + texts, count}, col);

  memdb_directory_is_whole(kind, false);
  text_ends ends(col);
  for (size_t i = 0; i + 1 < count; i++) {
    memdb_row *const later = memdb_row_at(rows[std::min(i + AHEAD, count - 1)]);
    __builtin_prefetch(memdb_link_of(later, col), 1);
    ends.lead_on(memdb_row_at(rows[i]), memdb_row_at(rows[i + 1]));
  }
  ends.finish();
  if (count > 0) *chain = memdb_row_at(rows[0]);
  memdb_free(block);
  return true;
}

// The same without memory, by a merge sort from below: the n-th of the bins holds a chain of 2^n
// texts or none.
memdb_row *link_by_merging(memdb_bucket_kind kind, memdb_col *col) {
  memdb_directory_is_whole(kind, false);
  std::array<memdb_row *, 48> bins{};
  memdb_each_table(kind, [&](const memdb_slots *table) {
    memdb_each_text(table, [&](memdb_row *newest) {
      size_t bin = 0;
      for (; bins[bin] != nullptr; bin++) {
        newest = merge(bins[bin], newest, col);
        bins[bin] = nullptr;
      }
      bins[bin] = newest;
    });
  });
  memdb_row *chain = nullptr;
  for (memdb_row *const sorted : bins)
    if (sorted != nullptr) chain = merge(sorted, chain, col);
  return chain;
}

}  // namespace

void memdb_make_whole(memdb_bucket_kind kind, memdb_col *col) {
  const memdb_slots *const table = kind.table();
  const memdb_parts *const parts = kind.parts();
  if ((table != nullptr && table->whole) || (parts != nullptr && parts->whole)) return;
  // Ahead of the first link that is cut, for searches that are on what was a chain.
  const std::atomic_ref conversions(col->conversions);
  conversions.store(conversions.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  std::atomic_thread_fence(std::memory_order_release);
  memdb_each_table(kind, [col](const memdb_slots *each) {
    memdb_each_text(each, [col](memdb_row *newest) {
      char *const link = memdb_link_of(last_of_text(newest, col), col);
      if (memdb_read_link(link) != nullptr) memdb_write_link_beside_readers(link, nullptr, col);
    });
  });
  memdb_directory_is_whole(kind, true);
}

void memdb_directory_make(memdb_row **bucket, memdb_col *col) {
  const chain_size size = measure(bucket, col);
  void *const word = size.sorted ? directory_of(*bucket, size.texts, col) : nullptr;
  if (word == nullptr) {
    // A try costs a walk of the chain, as each insert into it does.
    constexpr uint32_t INSERTS_TO_PASS = 32;
    col->made_not_before = INSERTS_TO_PASS;
    return;
  }
  memdb_publish(bucket, word);
  memdb_make_whole(memdb_bucket_kind(word), col);
}

void memdb_directory_dissolve(memdb_row **bucket, memdb_col *col) {
  const memdb_bucket_kind kind(*bucket);
  memdb_make_whole(kind, col);
  memdb_row *chain = nullptr;
  if (!link_by_order(kind, col, &chain)) chain = link_by_merging(kind, col);
  memdb_publish(bucket, chain);
  memdb_directory_give_back(kind, memdb_retire);
}
