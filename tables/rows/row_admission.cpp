// Row limit, duplicate check, generated index.
#include "tables/rows/row_admission.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "host/log.h"
#include "host/memory.h"
#include "tables/rows/duplicate_key.h"
#include "tables/rows/flag_treatment.h"
#include "tables/table_counts.h"

namespace {

bool write_index(tarn_tbl *table, query_in *in) NEEDS_LOCK(table->lock) {
  const uint32_t index = get_tbl_index(table);
  if (index == 0) return false;
  snprintf(in->flds[0], INDEX_TEXT_SIZE, "%u", index);
  return true;
}

// Whatever comes of the row, a text that insert_index made ends with the call.
class drawn_text {
 public:
  drawn_text(query_in *in, index_text kind)
      : owner_(kind == index_text::own_block ? in : nullptr) {}
  ~drawn_text() {
    if (owner_ != nullptr) pkg_free(std::exchange(owner_->flds[0], nullptr));
  }
  drawn_text(const drawn_text &) = delete;
  drawn_text &operator=(const drawn_text &) = delete;

 private:
  query_in *owner_;
};

bool draw_index(tarn_tbl *table, query_in *in, index_text kind) NEEDS_LOCK(table->lock) {
  return kind == index_text::own_block ? insert_index(table, in) : insert_index_no_alloc(table, in);
}

bool is_stored(memdb_tbl *tbl, const char *const *wanted) {
  memdb_cursor cursor;
  return memdb_select(tbl, wanted, &cursor) != nullptr;
}

admission refuse(const tarn_tbl *table, uint64_t table_counts::*count, admission outcome) {
  count_for(table, count);
  return outcome;
}

admission add_row(tarn_tbl *table, const query_in *in) NEEDS_LOCK(table->lock) {
  if (memdb_insert(rows_to_change(table), in->flds) == nullptr) return admission::not_inserted;
  flag_treatment(table, in, nullptr, nullptr, port_operation::take);
  set_tbl_state(table, TBL_CHANGED);
  set_tbl_row_count(table, 1);
  return admission::added;
}

}  // namespace

bool insert_index(tarn_tbl *table, query_in *in) {
  in->flds[0] = pkg_array<char>(INDEX_TEXT_SIZE);
  if (in->flds[0] == nullptr) {
    LM_DBG("Could not allocate memory for index!\n");
    return false;
  }
  return write_index(table, in);
}

bool insert_index_no_alloc(tarn_tbl *table, query_in *in) { return write_index(table, in); }

duplicate_state insert_check_for_duplicated_data(const tarn_tbl *table, const query_in *in) {
  const duplicate_key key(table, in);
  if (!key) {
    LM_ERR("Could not allocate memory for fields_in\n");
    return duplicate_state::unknown;
  }
  if (!is_stored(table->tbl, key.wanted())) {
    LM_DBG("Did not find a match\n");
    return duplicate_state::absent;
  }
  LM_DBG("Found a match\n");
  return duplicate_state::stored;
}

admission admit_row(tarn_tbl *table, query_in *in, const admission_rules &rules, int32_t *result) {
  *result = 1;
  // Equality alone: a table that a load has filled beyond its limit goes on taking rows.
  if (get_tbl_row_count(table) == table->max_rows)
    return refuse(table, &table_counts::refused_full, admission::full);
  if (rules.check_duplicates &&
      insert_check_for_duplicated_data(table, in) != duplicate_state::absent)
    return refuse(table, &table_counts::refused_duplicate, admission::duplicate);
  if (table->use_index == 0) return add_row(table, in);

  const drawn_text text(in, rules.index);
  if (!draw_index(table, in, rules.index)) return admission::no_index;
  *result = atoi(in->flds[0]);
  return add_row(table, in);
}

void log_refusal(admission refused, const tarn_tbl *table, const refusal_texts &texts,
                 int full_level) {
  switch (refused) {
    case admission::full:
      LM_TEXT(full_level, texts.full, table->max_rows, table->table_name);
      break;
    case admission::duplicate:
      LM_TEXT(L_WARN, texts.duplicate, table->table_name);
      break;
    case admission::no_index:
      LM_TEXT(L_ERR, texts.no_index);
      break;
    case admission::not_inserted:
      LM_TEXT(L_ERR, texts.not_inserted, table->table_name);
      break;
    case admission::added:
      break;
  }
}
