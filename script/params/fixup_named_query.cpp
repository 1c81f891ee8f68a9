// Fix-ups of the functions whose query may give its list by name. The list is rewritten here, once,
// so that the table has to be known when the script loads.
#include <string_view>

#include "host/imports.h"
#include "host/log.h"
#include "host/memory.h"
#include "query/named_params.h"
#include "query/query_input.h"
#include "query/text/field_strings.h"
#include "script/params/fixup.h"
#include "script/params/fixup_pieces.h"
#include "script/params/prefix_searches.h"
#include "script/params/special_slot.h"

namespace {

// The query text in the slot, cut into table, list and what follows the list.
struct query_parts {
  const tarn_tbl *table;
  str list;
  char *tail;  // null without a comma behind the list
};

bool cut_query(const str &text, query_parts *parts) {
  const std::string_view whole(text.s);
  const std::string_view name = whole.substr(0, whole.find(PART_SEPARATOR));
  if (name.empty()) {
    LM_ERR("Table name is missing\n");
    return false;
  }
  parts->table = find_query_table(text, name, &parts->tail);
  if (parts->table == nullptr) return false;
  tarn_memdb_get_next_field(text, PART_SEPARATOR, &parts->tail, &parts->list);
  return true;
}

int fix_named_query(void **param) {
  str query = slot_text(param);
  query_parts parts;
  if (!cut_query(query, &parts)) return -1;
  const conversion outcome =
      tarn_memdb_convert_query_param_list(&parts.list, parts.table, parts.tail);
  if (outcome == conversion::failed) return -1;
  if (outcome == conversion::converted) {
    pkg_free(*param);
    query = parts.list;
    *param = query.s;
  }
  return put_format(param, query, FORMAT_TEXTS.refused);
}

int fix_query_and_xavp(void **param, int param_no) {
  switch (param_no) {
    case 1:
      if (start_is_over()) return refuse_late_query(param);
      return fix_named_query_and_formats(param, param_no);
    case 2:
      if (start_is_over()) return take_late_text(param);
      return fixup_spve_spve(param, param_no);
    case 3:
      // A late one is left to the select, which refuses it with nothing lost.
      if (start_is_over() && *param != nullptr) return 0;
      return check_number_text(param, param_no);
    default:
      return 0;
  }
}

}  // namespace

int fix_named_query_and_avps(void **param, int param_no) {
  if (!is_given(param, param_no, FORMAT_TEXTS.missing)) return -1;
  return param_no == 1 ? fix_named_query(param) : fix_query_and_avps(param, param_no);
}

int fix_named_query_and_formats(void **param, int param_no) {
  if (!is_given(param, param_no, FORMAT_TEXTS.missing)) return -1;
  return param_no == 1 ? fix_named_query(param) : fix_formats(param, param_no);
}

int fix_named_query_and_xavp(void **param, int param_no) {
  const int result = fix_query_and_xavp(param, param_no);
  if (result == 0) note_prefix_search(*param, param_no);
  return result;
}
