// Row limit, duplicate check, generated index.
#include "tables/row_admission.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "host/log.h"
#include "host/memory.h"
#include "tables/flag_treatment.h"

namespace {

bool are_given(const tarn_tbl *table, const query_in *in) {
  if (table == nullptr) {
    LM_DBG("NULL value for tarn_table\n");
    return false;
  }
  if (in == nullptr) {
    LM_DBG("NULL value for in\n");
    return false;
  }
  return true;
}

bool write_index(tarn_tbl *table, query_in *in) {
  const uint32_t index = get_tbl_index(table);
  if (index == 0) return false;
  snprintf(in->flds[0], INDEX_TEXT_SIZE, "%u", index);
  return true;
}

// The wanted values of a check that leaves columns out, copied into slots of 32 bytes. Slots are
// filled in ascending order, so that a value of 32 bytes or more is spoilt by the next one and
// compares unequal: such rows pass the check, and callers count on their being let in.
class duplicate_key {
 public:
  duplicate_key(const tarn_tbl *table, const query_in *in)
      : count_(table->tbl->col_cnt),
        size_(size_t{count_} * BLOCK_PER_COLUMN),
        block_(pkg_array<char>(size_)) {
    if (!block_) return;
    for (uint32_t i = 0; i < count_; i++) {
      if (is_compared(table, i) && in->flds[i] != nullptr)
        copy(i, in->flds[i]);
      else
        wanted()[i] = nullptr;
    }
  }

  explicit operator bool() const { return static_cast<bool>(block_); }
  char **wanted() const { return reinterpret_cast<char **>(block_.get()); }

 private:
  static constexpr size_t BLOCK_PER_COLUMN = 264;
  static constexpr size_t TEXTS_PER_COLUMN = 64;  // the texts begin at column count times this
  static constexpr size_t SLOT = 32;

  static bool is_compared(const tarn_tbl *table, uint32_t col) {
    return holds_ports(*table) ? col >= 1 && col <= 3 : col != 0;
  }

  void copy(uint32_t col, const char *value) {
    const size_t start = size_t{count_} * TEXTS_PER_COLUMN + col * SLOT;
    char *const slot = block_.get() + start;
    const size_t len = strnlen(value, size_ - start - 1);
    memcpy(slot, value, len);
    slot[len] = '\0';
    wanted()[col] = slot;
  }

  uint32_t count_;
  size_t size_;
  pkg_owner<char> block_;
};

// Whatever comes of the row, a text that insert_index made ends with the call.
class drawn_text {
 public:
  explicit drawn_text(query_in *in) : in_(in) {}
  ~drawn_text() {
    if (is_own) pkg_free(std::exchange(in_->flds[0], nullptr));
  }
  drawn_text(const drawn_text &) = delete;
  drawn_text &operator=(const drawn_text &) = delete;

  bool is_own = false;

 private:
  query_in *in_;
};

bool is_stored(memdb_tbl *tbl, const char *const *wanted) {
  memdb_cursor cursor;
  return memdb_select(tbl, wanted, &cursor) != nullptr;
}

}  // namespace

int32_t insert_index(tarn_tbl *table, query_in *in) {
  if (!are_given(table, in)) return -1;
  in->flds[0] = pkg_array<char>(INDEX_TEXT_SIZE);
  if (in->flds[0] == nullptr) {
    LM_DBG("Could not allocate memory for index!\n");
    return -1;
  }
  return write_index(table, in) ? 0 : -1;
}

int32_t insert_index_no_alloc(tarn_tbl *table, query_in *in) {
  if (!are_given(table, in)) return -1;
  return write_index(table, in) ? 0 : -1;
}

int32_t insert_check_for_duplicated_data(tarn_tbl *table, query_in *in) {
  if (!are_given(table, in)) return -1;
  bool found;
  if (!holds_ports(*table) && table->use_index == 0) {
    found = is_stored(table->tbl, in->flds);
  } else {
    const duplicate_key key(table, in);
    if (!key) {
      LM_ERR("Could not allocate memory for fields_in\n");
      return -1;
    }
    found = is_stored(table->tbl, key.wanted());
  }
  if (!found) {
    LM_DBG("Did not find a match\n");
    return 0;
  }
  LM_DBG("Found a match\n");
  return 1;
}

admission admit_row(tarn_tbl *table, query_in *in, const admission_rules &rules, int32_t *result) {
  *result = 1;
  // Equality alone: a table that a load has filled beyond its limit goes on taking rows.
  if (table->row_count == table->max_rows) return admission::full;
  if (rules.check_duplicates && insert_check_for_duplicated_data(table, in) != 0)
    return admission::duplicate;

  drawn_text text(in);
  if (table->use_index != 0) {
    const int32_t drawn = rules.make_index(table, in);
    text.is_own = rules.make_index == insert_index;
    if (drawn != 0) return admission::no_index;
    *result = atoi(in->flds[0]);
  }
  if (memdb_insert(table->tbl, in->flds) == nullptr) return admission::not_inserted;
  flag_treatment(table, in, nullptr, nullptr, 0, PORT_TAKE);
  set_tbl_state(table, TBL_CHANGED);
  set_tbl_row_count(table, 1);
  return admission::added;
}
