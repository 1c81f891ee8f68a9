// Blocks of private memory that calls leave on purpose.
#pragma once

#include "tests/standin/memory.h"

namespace module_test {

// True for what a process keeps, within bounds, for other script languages: lists of names, and
// room for the longest value given.
inline bool is_kept_for_languages(const standin::block_info &block) {
  return block.func == "parse_and_keep" || block.func == "room_for" ||
         block.func.rfind("make_record<pvname_list_t>", 0) == 0;
}

}  // namespace module_test
