// Delete, update and clear.
#include "tables/rows/row_writes.h"

#include "host/log.h"
#include "tables/rows/flag_treatment.h"

int32_t delete_rows(tarn_tbl *table, const query_in *in, const audit_row_text &deleted) {
  memdb_cursor cursor;
  int32_t removed = 0;
  memdb_row *row = memdb_select(table->tbl, in->flds, &cursor);
  while (row != nullptr && removed < in->max_res) {
    flag_treatment(table, in, row, nullptr, port_operation::release);
    // The line tells what remains once this row is gone; the table's own count follows at the end.
    audit_row(table, deleted, table->row_count - (removed + 1), row);
    memdb_row *const next = memdb_select_next(&cursor);
    memdb_delete_row(rows_to_change(table), row);
    row = next;
    removed++;
  }
  if (removed != 0) {
    set_tbl_state(table, TBL_CHANGED);
    set_tbl_row_count(table, -removed);
  }
  return removed;
}

int32_t update_rows(tarn_tbl *table, const query_in *in, const query_in *values, update_rule rule,
                    const update_texts &texts) {
  memdb_cursor cursor;
  int32_t selected = 0;
  int32_t removed = 0;
  memdb_row *row = memdb_select(table->tbl, in->flds, &cursor);
  while (row != nullptr && selected < in->max_res) {
    flag_treatment(table, in, row, values, port_operation::release_on_update);
    const bool goes = rule(rows_to_change(table), row, values);
    // The rows selected so far, and not those removed, are told in the count of a removal.
    if (goes)
      audit_row(table, texts.removed, table->row_count - (selected + 1), row);
    else
      audit_row(table, texts.updated, table->row_count, row);
    memdb_row *const next = memdb_select_next(&cursor);
    if (goes) {
      memdb_delete_row(rows_to_change(table), row);
      if (texts.note != nullptr)
        LM_TEXT(L_INFO, *texts.note, selected, table->table_name,
                static_cast<int>(table->tbl->col_cnt));
      removed++;
    }
    row = next;
    selected++;
  }
  if (selected != 0) set_tbl_state(table, TBL_CHANGED);
  if (removed != 0) set_tbl_row_count(table, -removed);
  return selected;
}

bool set_given_columns(memdb_tbl *tbl, memdb_row *row, const query_in *values) {
  uint32_t empty = 0;
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (values->flds[i] != nullptr) memdb_set_field(tbl, row, i, values->flds[i]);
    if (*memdb_get_field(tbl, row, i) == '\0') empty++;
  }
  return empty == tbl->col_cnt;
}

void clear_rows(tarn_tbl *table, const audit_table_text &cleared) {
  memdb_delete_all(rows_to_change(table));
  set_tbl_state(table, TBL_CHANGED);
  table->row_count = 0;
  audit_clear(table, cleared);
}
