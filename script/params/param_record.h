// Records that a fix-up leaves in a slot.
#pragma once

#include "host/log.h"
#include "host/memory.h"

// A private block for one record, not cleared. Null, logged, if memory is short.
template <typename Record>
Record *make_record() {
  Record *const record = pkg_array<Record>(1);
  if (record == nullptr) LM_ERR("No more memory!\n");
  return record;
}
