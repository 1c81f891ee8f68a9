// The select of a port pair: columns 2 and 3 hold two ports, the script gives one of them and gets
// the other.
//
// fix_port_pair_query has put a place for the pair's other column into both lists: the query has
// the port at 2 and a wildcard at 3, the name list an empty place at 2 and the script's third name
// at 3.
#include <cstring>
#include <utility>

#include "host/log.h"
#include "query/text/buffers.h"
#include "script/params/script_query.h"
#include "script/select/row_delivery.h"
#include "script/select/select_functions.h"
#include "tables/table_scope.h"

namespace {

constexpr query_texts TEXTS{UNPRINTABLE, "Select %s\n",
                            "Could not parse query (%s) for select by port type\n"};

constexpr uint32_t EXTERNAL_COL = 2;
constexpr uint32_t INTERNAL_COL = 3;
constexpr uint32_t PAIR_COLUMNS = 4;  // a table of pairs has at least these

// Both words just fit; a longer one isn't printed.
constexpr size_t SELECTION_SIZE = sizeof("external_port");

enum class port_side { external, internal };

struct pair_slots {
  char *selection;
  char *query;
  char *avps;
};

bool read_side(const char *selection, port_side *side) {
  LM_DBG("Port to select=%s;\n", selection);
  if (strcmp(selection, "external_port") == 0) {
    *side = port_side::external;
  } else if (strcmp(selection, "internal_port") == 0) {
    *side = port_side::internal;
  } else {
    LM_ERR("wrong port selection parameter!\n");
    return false;
  }
  return true;
}

bool has_pair(const tarn_tbl *table) {
  if (table->tbl->col_cnt >= PAIR_COLUMNS) return true;
  LM_ERR("Table '%s' has no port columns\n", table->table_name);
  return false;
}

// The port is compared with the selected side's column; the other is a wildcard.
void choose_column(port_side side, query_in *in) {
  if (side == port_side::internal) {
    LM_DBG("Selection of internal port!\n");
    std::swap(in->flds[EXTERNAL_COL], in->flds[INTERNAL_COL]);
  } else {
    LM_DBG("Selection of external port!\n");
  }
}

int select_pair(sip_msg *msg, const pair_slots &slots, table_access access) {
  const host_log_scope log;
  char selection[SELECTION_SIZE];
  if (print_or_refuse(msg, slots.selection, selection, UNPRINTABLE_SELECT).s == nullptr)
    return SCRIPT_FAILED;
  const str text = print_or_refuse(msg, slots.query, query_buf, TEXTS.unprintable);
  port_side side;
  if (text.s == nullptr || !read_side(selection, &side)) return SCRIPT_FAILED;
  LM_TEXT(L_DBG, TEXTS.printed, text.s);
  script_query query;
  if (!parse_query(text, OP_SELECT, TEXTS.unparsed, &query) || !has_pair(query.table))
    return SCRIPT_FAILED;
  choose_column(side, &query);
  const memdb_tbl *const tbl = query.table->tbl;
  const avp_places places{reinterpret_cast<pvname_list_t *>(slots.avps), tbl->col_cnt,
                          unnamed_place::told};
  // The place at 3 takes the port that wasn't compared.
  const auto column_at = [side](uint32_t place) {
    return place == INTERNAL_COL && side == port_side::internal ? EXTERNAL_COL : place;
  };
  const table_scope scope(query.table, access);
  return deliver_matches(
      query, [&](const memdb_row *row) { return add_columns(msg, places, tbl, row, column_at); });
}

}  // namespace

int tarn_memdb_select_by_port_type(sip_msg *msg, char *selection, char *query, char *avps) {
  return select_pair(msg, {selection, query, avps}, table_access::locked);
}

int tarn_memdb_nl_select_by_port_type(sip_msg *msg, char *selection, char *query, char *avps) {
  return select_pair(msg, {selection, query, avps}, table_access::unlocked);
}
