// Composing the audit lines.
#include "tables/rows/audit.h"

#include "host/log.h"
#include "query/text/buffers.h"
#include "tables/rows/row_image.h"

namespace {

bool is_audited(const tarn_tbl *table) {
  return table->log_tag[0] != '\0' && host_log_enabled(L_NOTICE);
}

}  // namespace

void audit_insert(const tarn_tbl *table, const audit_source &source, const str &query) {
  if (!is_audited(table)) return;
  LM_NOTICE("%*s %s - (%d) %sInserting %.*s", source.indent, "", table->log_tag, table->row_count,
            source.word, query.len, query.s);
}

void audit_statement_insert(const tarn_tbl *table, const char *first_value) {
  if (!is_audited(table)) return;
  LM_NOTICE("%*s %s - (%d) %sInserting %s,%s", FROM_STATEMENT.indent, "", table->log_tag,
            table->row_count, FROM_STATEMENT.word, table->table_name, first_value);
}

void audit_row(const tarn_tbl *table, const audit_source &source, int32_t count, const char *action,
               const memdb_row *row) {
  if (!is_audited(table)) return;
  LM_NOTICE("%*s %s - (%d) %s%s %s,%s", source.indent, "", table->log_tag, count, source.word,
            action, table->table_name, row_image(table->tbl, row, row_image_buf));
}

void audit_clear(const tarn_tbl *table, const audit_source &source) {
  if (!is_audited(table)) return;
  LM_NOTICE("%*s %s - (%d) %sClearing table %s", source.indent, "", table->log_tag,
            table->row_count, source.word, table->table_name);
}
