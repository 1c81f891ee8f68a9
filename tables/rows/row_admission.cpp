// Row limit, duplicate check, generated index.
#include "tables/rows/row_admission.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "host/log.h"
#include "host/memory.h"
#include "tables/rows/duplicate_key.h"
#include "tables/rows/flag_treatment.h"

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
  const duplicate_key key(table, in);
  if (!key) {
    LM_ERR("Could not allocate memory for fields_in\n");
    return -1;
  }
  if (!is_stored(table->tbl, key.wanted())) {
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
