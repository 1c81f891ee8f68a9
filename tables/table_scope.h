// The one way into a table's rows for functions of two flavours: under the table's lock, or in a
// read section, from here to the end of the scope.
#pragma once

#include <optional>

#include "tables/tarn_tbl.h"

enum class table_access {
  locked,   // nobody changes a row meanwhile
  unlocked  // rows may be changed and taken out meanwhile, and stay where the reader can see them
};

class table_scope {
 public:
  table_scope(const tarn_tbl *table, table_access access) UNCHECKED_LOCKING
      : lock_(access == table_access::locked ? table->lock : nullptr) {
    if (access == table_access::unlocked) section_.emplace();
  }

 private:
  lock_scope lock_;
  std::optional<read_section> section_;
};
