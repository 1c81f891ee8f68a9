// Insert, delete, update and select by RPC.
#include "rpc/rpc_data.h"

#include "host/log.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "rpc/rpc_query.h"
#include "tables/files/table_files.h"
#include "tables/rows/row_admission.h"
#include "tables/rows/row_image.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr rpc_query_words INSERT_WORDS{
    {"RPC Insert: ", "not enough parameters", "Not enough parameters"}, "parse Error of"};
constexpr rpc_query_words DELETE_WORDS{
    {"RPC Delete: ", "not enough parameters", "Not enough parameters"}, "parse Error of"};
constexpr rpc_query_words UPDATE_WORDS{
    {"RPC Update: ", "not enough parameters", "Not enough parameters"}, "Parse Error of"};
constexpr rpc_query_words SELECT_WORDS{
    {"RPC Select: ", "wrong number of parameters", "wrong number of parameters"}, "parse error of"};

constexpr update_source FROM_RPC_UPDATE{FROM_RPC, "RPC - "};

void log_refusal(admission refused, const tarn_tbl *table) {
  switch (refused) {
    case admission::full:
      LM_WARN(
          "RPC Insert: MAX number of rows allowed (%d) for table '%s' reached. Data will not be "
          "inserted!\n",
          table->max_rows, table->table_name);
      break;
    case admission::duplicate:
      LM_WARN("RPC Insert: duplicated data will not be inserted into table '%s'!\n",
              table->table_name);
      break;
    case admission::no_index:
      LM_ERR("RPC Insert: insertion of index failed!\n");
      break;
    case admission::not_inserted:
      LM_ERR("RPC Insert: insertion into table '%s' failed!\n", table->table_name);
      break;
    case admission::added:
      break;
  }
}

bool insert(const str &text, rpc_query *query) {
  const lock_scope lock(query->table->lock);
  int32_t index;
  // Operators are kept from doubling a row even where scripts may.
  const admission_rules rules{.check_duplicates = true, .make_index = insert_index};
  const admission outcome = admit_row(query->table, query, rules, &index);
  if (outcome != admission::added) {
    log_refusal(outcome, query->table);
    return false;
  }
  audit_insert(query->table, FROM_RPC, text);
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

void send_rows(const rpc_call &call, const query_in &in) {
  memdb_tbl *const tbl = in.table->tbl;
  memdb_cursor cursor;
  const memdb_row *row = memdb_select(tbl, in.flds, &cursor);
  for (int32_t sent = 0; row != nullptr && sent < in.max_res; sent++) {
    row_image(tbl, row, query_buf);
    if (!send_query_buf(call)) return;
    row = memdb_select_next(&cursor);
  }
}

void select(const rpc_call &call, bool locked) {
  const host_log_scope log;
  str text;
  rpc_query query;
  if (!open_rpc_query(call, SELECT_WORDS, OP_SELECT, &text, &query)) return;
  if (call.rpc->rpl_printf(call.ctx, "TABLE:") < 0) return;
  table_scope scope;
  scope.enter(query.table, locked);
  send_rows(call, query);
}

}  // namespace

void tarn_memdb_rpc_insert(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  str text;
  rpc_query query;
  if (!open_rpc_query(call, INSERT_WORDS, OP_INSERT, &text, &query)) return;
  if (!insert(text, &query)) rpc->fault(ctx, RPC_FAULT, "Internal Error");
}

void tarn_memdb_rpc_delete(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  str text;
  rpc_query query;
  if (!open_rpc_query(call, DELETE_WORDS, OP_DELETE, &text, &query)) return;
  {
    const lock_scope lock(query.table->lock);
    delete_rows(query.table, &query, FROM_RPC);
  }
  store_table_mngt(0, nullptr);
}

void tarn_memdb_rpc_update(rpc_t *rpc, void *ctx) {
  const host_log_scope log;
  const rpc_call call{rpc, ctx};
  str text{nullptr, 0};
  str list{nullptr, 0};
  if (rpc->scan(ctx, "SS", &text, &list) < 2 || text.s == nullptr || list.s == nullptr) {
    refuse_arguments(call, UPDATE_WORDS.refusal);
    return;
  }
  rpc_query query;
  query_scope values;
  if (!parse_rpc_query(call, UPDATE_WORDS, text, OP_SELECT, &query) ||
      !parse_values(call, list, query.table, &values))
    return;
  const lock_scope lock(query.table->lock);
  update_rows(query.table, &query, &values, set_given_columns, FROM_RPC_UPDATE);
}

void tarn_memdb_rpc_select(rpc_t *rpc, void *ctx) { select({rpc, ctx}, true); }

void tarn_memdb_rpc_nl_select(rpc_t *rpc, void *ctx) { select({rpc, ctx}, false); }
