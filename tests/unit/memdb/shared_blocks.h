// Memory that processes share or, each its own copy, don't, for tests with one writer and one
// reader. Blocks that were given back become others as soon as the reader can't be in them any
// more, and are spoilt first.
#pragma once

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

#include "memdb/memdb.h"

namespace engine_test {

class shared_blocks {
 public:
  // Sets the engine's allocators. There is one at a time. sharing is MAP_SHARED or MAP_PRIVATE.
  explicit shared_blocks(int sharing = MAP_SHARED) {
    memory_ = static_cast<char *>(
        mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, sharing | MAP_ANONYMOUS, -1, 0));
    present_ = this;
    reads_ = reinterpret_cast<uint64_t *>(memory_);
    used_ = LINE;
    memdb_malloc = [](size_t size) { return present_->give(size); };
    memdb_calloc = [](size_t count, size_t size) { return present_->give(count * size); };
    memdb_free = [](void *block) {
      if (block != nullptr) present_->keep(block, true);
    };
    memdb_retire = [](void *block) { present_->keep(block, false); };
  }
  ~shared_blocks() { munmap(memory_, SIZE); }
  shared_blocks(const shared_blocks &) = delete;
  shared_blocks &operator=(const shared_blocks &) = delete;

  // For a reader that may follow one that was killed amid a read.
  void begin_reading() { std::atomic_ref(*reads_).store(0); }
  // Around each read.
  void begin_read() { std::atomic_ref(*reads_).fetch_add(1); }
  void end_read() { std::atomic_ref(*reads_).fetch_add(1); }

 private:
  static constexpr size_t SIZE = 1 << 26;
  static constexpr size_t LINE = 128;
  static constexpr size_t MOST = 4096;  // blocks of one size that wait
  static constexpr char SPOILT = '\xDD';

  // Ahead of each block.
  struct block_head {
    size_t size_class;
    uint64_t given_back_at;
  };
  struct waiting {
    std::array<block_head *, MOST> blocks;
    size_t first;
    size_t end;
  };

  void *give(size_t size) {
    const size_t size_class = static_cast<size_t>(std::bit_width(size + sizeof(block_head) - 1));
    const size_t whole = size_t{1} << size_class;
    waiting &queue = waiting_[size_class];
    block_head *head;
    if (queue.first != queue.end && may_be_reused(*queue.blocks[queue.first % MOST])) {
      head = queue.blocks[queue.first++ % MOST];
      memset(head + 1, 0, size);
    } else {
      const size_t at = (used_ + LINE - 1) / LINE * LINE;
      if (at + whole > SIZE) return nullptr;
      head = reinterpret_cast<block_head *>(memory_ + at);
      used_ = at + whole;
    }
    head->size_class = size_class;
    return head + 1;
  }

  bool may_be_reused(const block_head &head) {
    return head.given_back_at % 2 == 0 || std::atomic_ref(*reads_).load() != head.given_back_at;
  }

  void keep(void *block, bool at_once) {
    block_head *const head = static_cast<block_head *>(block) - 1;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    head->given_back_at = at_once ? 0 : std::atomic_ref(*reads_).load();
    const size_t size = (size_t{1} << head->size_class) - sizeof(block_head);
    // The first 8 bytes aren't the reader's any more.
    const size_t spoilt = head->given_back_at % 2 == 0 ? size : sizeof(void *);
    memset(block, SPOILT, spoilt);
    waiting &queue = waiting_[head->size_class];
    if (queue.end - queue.first == MOST) return;
    // In this order, for whoever goes on when this writer has been killed.
    queue.blocks[queue.end % MOST] = head;
    queue.end++;
  }

  static inline shared_blocks *present_;
  char *memory_;
  uint64_t *reads_;  // begun and ended; odd while one runs
  size_t used_;
  std::array<waiting, 32> waiting_{};
};

}  // namespace engine_test
