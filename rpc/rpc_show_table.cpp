// The rows of a table, for programs and for people.
#include "host/log.h"
#include "host/pv_module.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "query/text/text_writer.h"
#include "rpc/rpc_call.h"
#include "rpc/rpc_inspect.h"
#include "tables/rows/row_image.h"

namespace {

constexpr rpc_words SHOW_WORDS{"RPC Show tbl: ", "wrong number of parameters",
                               "wrong number of parameters"};
constexpr rpc_words SHOW_P_WORDS{"RPC Show tblp: ", "wrong number of parameters",
                                 "wrong number of parameters"};

constexpr char ROW_RULE[] = "----------------------------------------\n";
static_assert(sizeof(ROW_RULE) == 42);

bool refuse_table(const rpc_call &call, const rpc_words &words, const char *name) {
  LM_ERR("%swrong table name: '%s'", words.log_name, name);
  call.rpc->fault(call.ctx, RPC_FAULT, "Wrong table name: '%s'", name);
  return false;
}

bool sent_or_logged(bool sent, const char *message) {
  if (!sent) LM_ERR("%s", message);
  return sent;
}

bool send_head(const rpc_call &call, const tarn_tbl *table) {
  static constexpr char FAILED[] = "Error to write table on buffer";
  return sent_or_logged(send_line(call, "Table: %s", table->table_name), FAILED) &&
         sent_or_logged(send_line(call, "Row count: %d", get_tbl_row_count(table)), FAILED);
}

bool send_column_names(const rpc_call &call, const tarn_tbl *table) {
  text_writer out(query_buf);
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++) {
    if (i > 0) out.append(FIELD_SEPARATOR);
    out.append(column_name(table, i));
  }
  return sent_or_logged(send_query_buf(call), "Error to print table on buffer");
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

void send_rows(const rpc_call &call, const tarn_tbl *table,
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
  char *name = nullptr;
  if (rpc->scan(ctx, "s", &name) < 1 || name == nullptr) {
    refuse_arguments(call, SHOW_WORDS);
    return;
  }
  // The whole argument is the name here, not its first word.
  const tarn_tbl *const table = get_tarn_tbl_by_name(name);
  if (table == nullptr) {
    refuse_table(call, SHOW_WORDS, name);
    return;
  }
  const lock_scope lock(table->lock);
  if (send_head(call, table) && send_column_names(call, table))
    send_rows(call, table, compose_line);
}

void tarn_memdb_rpc_show_tbl_p(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  table_argument argument;
  switch (read_table_argument(call, SHOW_P_WORDS, &argument)) {
    case argument_state::missing:
      return;
    case argument_state::unknown:
      refuse_table(call, SHOW_P_WORDS, argument.name);
      return;
    case argument_state::found:
      break;
  }
  const lock_scope lock(argument.table->lock);
  if (send_head(call, argument.table)) send_rows(call, argument.table, compose_paragraph);
}
