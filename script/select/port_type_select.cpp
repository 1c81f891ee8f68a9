// The select of a port pair: columns 2 and 3 hold two ports, the script gives one of them and gets
// the other.
//
// tarn_memdb_port_fixup has put a place for the pair's other column into both lists: the query has
// the port at 2 and a wildcard at 3, the name list an empty place at 2 and the script's third name
// at 3.
#include <cstring>
#include <utility>

#include "host/log.h"
#include "query/text/buffers.h"
#include "script/params/avp.h"
#include "script/params/script_query.h"
#include "script/select/select_functions.h"
#include "tables/shared/lock.h"

namespace {

constexpr query_words WORDS{UNPRINTABLE, "Select", "select by port type"};

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

// The place at 3 takes the port that wasn't compared.
bool deliver_pair(sip_msg *msg, const memdb_tbl *tbl, const memdb_row *row, port_side side,
                  pvname_list_t *avps) {
  pvname_list_t *place = avps;
  for (uint32_t i = 0; i < tbl->col_cnt && place != nullptr; i++, place = place->next) {
    avp_target target;
    if (!resolve_avp(msg, &place->sname, &target) || !is_named(target)) {
      LM_DBG("Could not get avp name\n");
      continue;
    }
    const bool other_port = i == INTERNAL_COL && side == port_side::internal;
    const uint32_t column = other_port ? EXTERNAL_COL : i;
    if (!add_text_avp(target, memdb_get_field(tbl, row, column))) return false;
  }
  return true;
}

int deliver_matches(sip_msg *msg, const script_query &query, port_side side, pvname_list_t *avps) {
  memdb_tbl *const tbl = query.table->tbl;
  memdb_cursor cursor;
  int result = SCRIPT_NO_ROW;
  const memdb_row *row = memdb_select(tbl, query.flds, &cursor);
  for (int32_t visited = 0; row != nullptr && visited < query.max_res; visited++) {
    result = SCRIPT_OK;
    if (!deliver_pair(msg, tbl, row, side, avps)) return SCRIPT_FAILED;
    row = memdb_select_next(&cursor);
  }
  return result;
}

int tarn_memdb_select_by_port_type_cmn(sip_msg *msg, const pair_slots &slots, bool locked) {
  const host_log_scope log;
  char selection[SELECTION_SIZE];
  if (print_or_refuse(msg, slots.selection, selection, UNPRINTABLE_SELECT).s == nullptr)
    return SCRIPT_FAILED;
  const str text = print_or_refuse(msg, slots.query, query_buf, UNPRINTABLE);
  port_side side;
  if (text.s == nullptr || !read_side(selection, &side)) return SCRIPT_FAILED;
  LM_DBG("Select %s\n", text.s);
  script_query query;
  if (!parse_query(text, OP_SELECT, WORDS, &query) || !has_pair(query.table)) return SCRIPT_FAILED;
  choose_column(side, &query);
  table_scope scope;
  scope.enter(query.table, locked);
  return deliver_matches(msg, query, side, reinterpret_cast<pvname_list_t *>(slots.avps));
}

}  // namespace

int tarn_memdb_select_by_port_type(sip_msg *msg, char *selection, char *query, char *avps) {
  return tarn_memdb_select_by_port_type_cmn(msg, {selection, query, avps}, true);
}

int tarn_memdb_nl_select_by_port_type(sip_msg *msg, char *selection, char *query, char *avps) {
  return tarn_memdb_select_by_port_type_cmn(msg, {selection, query, avps}, false);
}
