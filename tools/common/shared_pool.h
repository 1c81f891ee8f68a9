// The server's shared memory, as far as it can be foretold: what each block costs there, and where
// it ends.
//
// The host's allocators put a header on each block and round its size up. The figures are those of
// its qm, fm and tlsf with memory debugging, as every host that loads the module has it, measured
// by filling a server's memory with rows until one no longer fitted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

struct pool_rules {
  const char *name;   // as of the host's option -x
  size_t head;        // of the whole memory, in bytes
  size_t overhead;    // of each block
  size_t rounded_to;  // sizes of blocks are multiples of this
  size_t least;       // size of the smallest block
};

// The host's allocators; the first is the one that it takes if it isn't told.
std::span<const pool_rules> all_pool_rules();

class shared_pool {
 public:
  explicit shared_pool(const pool_rules &rules) : rules_(&rules) {}

  // Sets the allocator, and the size of the memory in bytes.
  void set_rules(const pool_rules &rules) { rules_ = &rules; }
  void set_size(size_t size) { size_ = size; }

  const pool_rules &rules() const { return *rules_; }
  size_t size() const { return size_; }

  // Bytes that a block of that many bytes takes.
  size_t cost(size_t bytes) const;

  // Takes a block, or tells that it doesn't fit, which is remembered.
  bool take(size_t bytes);
  void give_back(size_t bytes);

  // Bytes taken, with the head.
  size_t used() const { return used_ + rules_->head; }
  size_t left() const { return size_ > used() ? size_ - used() : 0; }
  // Goes back to a state that was seen before.
  void set_used(size_t used) { used_ = used - rules_->head; }

  // True if a block didn't fit since the last call.
  bool was_short();

 private:
  const pool_rules *rules_;
  size_t size_ = SIZE_MAX;
  size_t used_ = 0;  // without the head
  bool was_short_ = false;
};

// The pool that the module's code inside the checker takes its shared memory from.
extern shared_pool server_memory;

// Gives server_memory its size: limit_mb, or, where that is 0, what this machine can spare.
void set_server_memory(size_t limit_mb);
