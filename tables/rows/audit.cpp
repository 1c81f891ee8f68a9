// Writing the audit lines.
#include "tables/rows/audit.h"

#include "host/log.h"
#include "query/text/buffers.h"
#include "tables/rows/row_image.h"

namespace {

bool is_audited(const tarn_tbl *table) {
  return table->log_tag[0] != '\0' && host_log_enabled(L_NOTICE);
}

}  // namespace

void audit_insert(const tarn_tbl *table, const audit_query_text &text, const str &query) {
  if (is_audited(table))
    LM_TEXT(L_NOTICE, text, table->log_tag, peek_tbl_row_count(table), query.len, query.s);
}

void audit_values(const tarn_tbl *table, const audit_row_text &text, const char *values) {
  if (is_audited(table))
    LM_TEXT(L_NOTICE, text, table->log_tag, get_tbl_row_count(table), table->table_name, values);
}

void audit_row(const tarn_tbl *table, const audit_row_text &text, int32_t count,
               const memdb_row *row) {
  if (is_audited(table))
    LM_TEXT(L_NOTICE, text, table->log_tag, count, table->table_name,
            row_image(table->tbl, row, row_image_buf));
}

void audit_clear(const tarn_tbl *table, const audit_table_text &text) {
  if (is_audited(table))
    LM_TEXT(L_NOTICE, text, table->log_tag, get_tbl_row_count(table), table->table_name);
}
