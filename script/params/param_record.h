// Records that a fix-up leaves in a slot.
#pragma once

#include "host/log.h"
#include "host/memory.h"

inline void log_no_memory() { LM_ERR("No more memory!\n"); }

// A private block for one record, not cleared. Null, logged, if memory is short.
template <typename Record>
Record *make_record() {
  Record *const record = pkg_array<Record>(1);
  if (record == nullptr) log_no_memory();
  return record;
}
