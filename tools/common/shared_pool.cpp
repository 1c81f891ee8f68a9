// Counting blocks.
#include "tools/common/shared_pool.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace {

constexpr pool_rules RULES[] = {
    {"qm", 268720, 112, 16, 16},
    {"fm", 34064, 80, 16, 16},
    {"tlsf", 8520, 40, 8, 56},
};

}  // namespace

shared_pool server_memory(RULES[0]);

std::span<const pool_rules> all_pool_rules() { return RULES; }

size_t shared_pool::cost(size_t bytes) const {
  const size_t unit = rules_->rounded_to;
  return std::max((bytes + unit - 1) / unit * unit, rules_->least) + rules_->overhead;
}

bool shared_pool::take(size_t bytes) {
  // Sizes beyond this can't be rounded up; no memory is so large.
  const size_t price = bytes <= SIZE_MAX / 2 ? cost(bytes) : SIZE_MAX / 2;
  if (price > size_ || used() > size_ - price) {
    was_short_ = true;
    return false;
  }
  used_ += price;
  return true;
}

void shared_pool::give_back(size_t bytes) { used_ -= cost(bytes); }

bool shared_pool::was_short() { return std::exchange(was_short_, false); }

void set_server_memory(size_t limit_mb) {
  const auto pages = static_cast<size_t>(sysconf(_SC_PHYS_PAGES));
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  server_memory.set_size(limit_mb != 0 ? limit_mb << 20 : pages / 2 * page);
}
