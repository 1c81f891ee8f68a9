// The rows of a table, for programs and for people.
#include "rpc/rpc_show_table.h"

#include "host/log.h"
#include "host/pv_module.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "query/text/text_writer.h"
#include "rpc/rpc_call.h"
#include "tables/rows/row_image.h"

namespace {

constexpr message_text<const char *> SHOW_UNKNOWN{"RPC Show tbl: wrong table name: '%s'"};
constexpr table_argument SHOW_ARGUMENT{
    {"RPC Show tbl: wrong number of parameters\n", WRONG_NUMBER}, &SHOW_UNKNOWN, name_form::whole};
constexpr message_text<const char *> SHOW_P_UNKNOWN{"RPC Show tblp: wrong table name: '%s'"};
constexpr table_argument SHOW_P_ARGUMENT{
    {"RPC Show tblp: wrong number of parameters\n", WRONG_NUMBER},
    &SHOW_P_UNKNOWN,
    name_form::first_word};

constexpr char ROW_RULE[] = "----------------------------------------\n";
static_assert(sizeof(ROW_RULE) == 42);

bool send_head(const rpc_call &call, const tarn_tbl *table) NEEDS_LOCK(table->lock) {
  if (send_name_and_count(call, table)) return true;
  LM_ERR("Error to write table on buffer");
  return false;
}

bool send_column_names(const rpc_call &call, const tarn_tbl *table) {
  text_writer out(query_buf);
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++) {
    if (i > 0) out.append(FIELD_SEPARATOR);
    out.append(column_name(table, i));
  }
  if (send_query_buf(call)) return true;
  LM_ERR("Error to print table on buffer");
  return false;
}

// Sends query_buf as a container of its own.
bool send_container(const rpc_call &call) {
  void *container = nullptr;
  return call.rpc->add(call.ctx, host_rpc_container(), &container) >= 0 && container != nullptr &&
         call.rpc->array_add(container, "s", query_buf) >= 0;
}

void compose_line(const tarn_tbl *table, const memdb_row *row) {
  row_image(table->tbl, row, query_buf);
}

void compose_paragraph(const tarn_tbl *table, const memdb_row *row) {
  text_writer out(query_buf);
  out.append(ROW_RULE);
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++) {
    out.append(column_name(table, i)).append(": \"");
    out.append(memdb_get_field(table->tbl, row, i)).append("\"\n");
  }
}

void send_all_rows(const rpc_call &call, const tarn_tbl *table,
                   void (*compose)(const tarn_tbl *, const memdb_row *)) {
  for (const memdb_row *row = table->tbl->first; row != nullptr; row = row->next) {
    compose(table, row);
    if (!send_container(call)) return;
  }
}

}  // namespace

void tarn_memdb_rpc_show_tbl(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  const tarn_tbl *const table = read_table(call, SHOW_ARGUMENT);
  if (table == nullptr) return;
  const lock_scope lock(table->lock);
  if (send_head(call, table) && send_column_names(call, table))
    send_all_rows(call, table, compose_line);
}

void tarn_memdb_rpc_show_tbl_p(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  const tarn_tbl *const table = read_table(call, SHOW_P_ARGUMENT);
  if (table == nullptr) return;
  const lock_scope lock(table->lock);
  if (send_head(call, table)) send_all_rows(call, table, compose_paragraph);
}
