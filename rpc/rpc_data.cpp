// Insert, delete, update and select by RPC.
#include "rpc/rpc_data.h"

#include "host/log.h"
#include "memdb/visit.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "rpc/rpc_query.h"
#include "tables/files/table_files.h"
#include "tables/rows/row_admission.h"
#include "tables/rows/row_image.h"
#include "tables/rows/row_writes.h"
#include "tables/table_scope.h"

namespace {

constexpr rpc_query_texts INSERT_TEXTS{
    {"RPC Insert: not enough parameters\n", NOT_ENOUGH_PARAMETERS},
    "RPC Insert: parse Error of: '%s'"};
constexpr rpc_query_texts DELETE_TEXTS{
    {"RPC Delete: not enough parameters\n", NOT_ENOUGH_PARAMETERS},
    "RPC Delete: parse Error of: '%s'"};
constexpr rpc_query_texts UPDATE_TEXTS{
    {"RPC Update: not enough parameters\n", NOT_ENOUGH_PARAMETERS},
    "RPC Update: Parse Error of: '%s'"};
constexpr rpc_query_texts SELECT_TEXTS{{"RPC Select: wrong number of parameters\n", WRONG_NUMBER},
                                       "RPC Select: parse error of: '%s'"};

constexpr refusal_texts INSERT_REFUSED{
    "RPC Insert: MAX number of rows allowed (%d) for table '%s' reached. Data will not be inserted!\n",
    "RPC Insert: duplicated data will not be inserted into table '%s'!\n",
    "RPC Insert: insertion of index failed!\n",
    "RPC Insert: insertion into table '%s' failed!\n",
};

constexpr audit_query_text INSERTED{"       %s - (%d) RPC Inserting %.*s"};
constexpr audit_row_text DELETED{"       %s - (%d) RPC Deleting %s,%s"};
constexpr message_text<int, const char *, int> ROW_REMOVED{
    "RPC - Deleting row from update for selected index %d in table %s - cols_len: %d\n"};
constexpr update_texts UPDATED{"       %s - (%d) RPC Updating %s,%s",
                               "       %s - (%d) RPC Deleting from update %s,%s", &ROW_REMOVED};

bool insert(const str &text, rpc_query *query) {
  const lock_scope lock(query->table->lock);
  int32_t index;
  // Operators are kept from doubling a row even where scripts may.
  const admission_rules rules{.check_duplicates = true, .index = index_text::own_block};
  const admission outcome = admit_row(query->table, query, rules, &index);
  if (outcome != admission::added) {
    log_refusal(outcome, query->table, INSERT_REFUSED, L_WARN);
    return false;
  }
  audit_insert(query->table, INSERTED, text);
  return true;
}

bool parse_values(const rpc_call &call, const str &list, tarn_tbl *table, query_in *values) {
  values->table = table;
  values->flds = tarn_memdb_create_fields(list, &table->tbl->col_cnt);
  if (values->flds != nullptr) return true;
  LM_ERR("RPC Update: bad parameter: '%s'", list.s);
  call.rpc->fault(call.ctx, RPC_FAULT, "Bad parameter: '%s'", list.s);
  return false;
}

void send_matches(const rpc_call &call, const query_in &in) {
  memdb_visit(in.table->tbl, in.flds, in.max_res, [&](const memdb_row *row, int32_t) {
    row_image(in.table->tbl, row, query_buf);
    return send_query_buf(call);
  });
}

void select(const rpc_call &call, table_access access) {
  const host_log_scope log;
  str text;
  rpc_query query;
  if (!open_rpc_query(call, SELECT_TEXTS, OP_SELECT, &text, &query)) return;
  if (call.rpc->rpl_printf(call.ctx, "TABLE:") < 0) return;
  const table_scope scope(query.table, access);
  send_matches(call, query);
}

}  // namespace

void tarn_memdb_rpc_insert(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  str text;
  rpc_query query;
  if (!open_rpc_query(call, INSERT_TEXTS, OP_INSERT, &text, &query)) return;
  if (!insert(text, &query)) fault_internal(call);
}

void tarn_memdb_rpc_delete(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  str text;
  rpc_query query;
  if (!open_rpc_query(call, DELETE_TEXTS, OP_DELETE, &text, &query)) return;
  {
    const lock_scope lock(query.table->lock);
    delete_rows(query.table, &query, DELETED);
  }
  store_table_mngt(0, nullptr);
}

void tarn_memdb_rpc_update(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  str text{nullptr, 0};
  str list{nullptr, 0};
  if (rpc->scan(ctx, "SS", &text, &list) < 2 || text.s == nullptr || list.s == nullptr) {
    refuse_arguments(call, UPDATE_TEXTS.missing);
    return;
  }
  rpc_query query;
  query_scope values;
  if (!parse_rpc_query(call, UPDATE_TEXTS, text, OP_SELECT, &query) ||
      !parse_values(call, list, query.table, &values))
    return;
  const lock_scope lock(query.table->lock);
  update_rows(query.table, &query, &values, set_given_columns, UPDATED);
}

void tarn_memdb_rpc_select(rpc_t *rpc, void *ctx) { select({rpc, ctx}, table_access::locked); }

void tarn_memdb_rpc_nl_select(rpc_t *rpc, void *ctx) { select({rpc, ctx}, table_access::unlocked); }
