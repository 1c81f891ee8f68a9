// tarn_memdb_delete: removes the rows that match.
#include "host/log.h"
#include "script/params/script_query.h"
#include "script/writes/write_functions.h"
#include "script/writes/write_texts.h"
#include "tables/rows/row_writes.h"

namespace {

constexpr query_texts TEXTS{UNPRINTABLE, "Delete: %s\n", "Could not parse query (%s) for delete\n"};
constexpr audit_row_text DELETED{"           %s - (%d) Deleting %s,%s"};

}  // namespace

int tarn_memdb_delete(sip_msg *msg, char *slot, char *) {
  const host_log_scope log;
  str text;
  script_query query;
  if (!print_query(msg, slot, TEXTS, &text) ||
      !parse_query(text, OP_DELETE, TEXTS.unparsed, &query)) {
    LM_TEXT(L_ERR, DELETE_FAILED);
    return SCRIPT_FAILED;
  }
  const lock_scope lock(query.table->lock);
  return delete_rows(query.table, &query, DELETED) != 0 ? SCRIPT_OK : SCRIPT_NO_ROW;
}
