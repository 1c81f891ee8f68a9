// tarn_memdb_delete: removes the rows that match.
#include "host/log.h"
#include "script/params/script_query.h"
#include "script/writes/write_functions.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr query_words WORDS{UNPRINTABLE, "Delete", "delete"};

}  // namespace

int tarn_memdb_delete(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  str text;
  script_query query;
  if (!print_query(msg, slot, WORDS, &text) || !parse_query(text, OP_DELETE, WORDS, &query)) {
    LM_ERR("DELETE failed!\n");
    return SCRIPT_FAILED;
  }
  const lock_scope lock(query.table->lock);
  return delete_rows(query.table, &query, FROM_SCRIPT) != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
}
