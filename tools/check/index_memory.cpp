// Blocks as the engine itself makes them, without a table.
#include "tools/check/index_memory.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "memdb/index/directory_blocks.h"
#include "memdb/prefix/slots.h"
#include "tools/common/shared_pool.h"

namespace {

// Blocks that the engine asks for during the scope come from here, are counted, and go with it,
// also those that it gives back since a further one is more than this machine has. However little
// memory is left, none is refused.
class counted_blocks {
 public:
  counted_blocks()
      : usual_(memdb_calloc), usual_free_(memdb_free), usual_question_(memdb_may_take) {
    cost_ = 0;
    memdb_may_take = nullptr;
    memdb_calloc = count;
    memdb_free = [](void *) {};
  }
  ~counted_blocks() {
    memdb_may_take = usual_question_;
    memdb_calloc = usual_;
    memdb_free = usual_free_;
    for (void *const block : blocks_) free(block);
    blocks_.clear();
  }
  counted_blocks(const counted_blocks &) = delete;
  counted_blocks &operator=(const counted_blocks &) = delete;

  size_t cost() const { return cost_; }

 private:
  static void *count(size_t number, size_t size) {
    cost_ += server_memory.cost(number * size);
    // Not written to but for their heads, so that large ones take no memory here.
    void *const block = calloc(number, size);
    if (block != nullptr) blocks_.push_back(block);
    return block;
  }

  static size_t cost_;
  static std::vector<void *> blocks_;
  void *(*usual_)(size_t, size_t);
  void (*usual_free_)(void *);
  bool (*usual_question_)(size_t);
};

size_t counted_blocks::cost_;
std::vector<void *> counted_blocks::blocks_;

}  // namespace

size_t directory_memory(const tarn_tbl *table, size_t rows) {
  if (rows <= memdb_directories.plain_rows) return 0;
  size_t bytes = 0;
  for (const memdb_col &col : memdb_cols(table->tbl)) {
    if (!memdb_is_indexed(col)) continue;
    const size_t texts = (rows + col.idx_len - 1) / col.idx_len;
    if (texts <= memdb_directories.plain_chain) continue;
    const counted_blocks blocks;
    memdb_new_directory(texts);
    bytes += blocks.cost() * col.idx_len;
  }
  return bytes;
}

size_t look_up_memory(size_t rows) {
  if (rows == 0) return 0;
  const counted_blocks blocks;
  memdb_prefix_make_slots(static_cast<uint32_t>(std::min<size_t>(rows, UINT32_MAX)));
  return blocks.cost();
}
