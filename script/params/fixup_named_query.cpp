// Fix-ups of the functions whose query may give its list by name. The list is rewritten here, once,
// so that the table has to be known when the script loads.
#include <cstring>
#include <string_view>

#include "host/imports.h"
#include "host/log.h"
#include "host/memory.h"
#include "query/named_params.h"
#include "query/text/field_strings.h"
#include "script/params/fixup.h"
#include "script/params/late_param.h"

namespace {

bool is_given(void *const *param, int param_no) {
  if (*param != nullptr) return true;
  LM_ERR("NULL format in param n %d\n", param_no);
  return false;
}

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
  char *cursor = text.s;
  str part;
  tarn_memdb_get_next_field(text, PART_SEPARATOR, &cursor, &part);
  if (cursor == nullptr) {
    LM_ERR("Field list is missing\n");
    return false;
  }
  parts->table = get_tarn_tbl_by_name(name);
  if (parts->table == nullptr) {
    LM_ERR("Table not found\n");
    return false;
  }
  tarn_memdb_get_next_field(text, PART_SEPARATOR, &cursor, &parts->list);
  parts->tail = cursor;
  return true;
}

int fix_query(void **param) {
  auto *const text = static_cast<char *>(*param);
  str query{text, static_cast<int>(strlen(text))};
  query_parts parts;
  if (!cut_query(query, &parts)) return -1;
  const conversion converted =
      tarn_memdb_convert_query_param_list(&parts.list, parts.table, parts.tail);
  if (converted == conversion::failed) return -1;
  if (converted == conversion::converted) {
    pkg_free(text);
    query = parts.list;
    *param = query.s;
  }
  pv_elem_t *format = nullptr;
  if (pv_parse_format(&query, &format) < 0) {
    LM_ERR("Wrong format [%s]\n", query.s);
    return -1;
  }
  *param = format;
  return 0;
}

}  // namespace

int tarn_memdb_query_fixup_mode(void **param, int param_no) {
  if (!is_given(param, param_no)) return -1;
  return param_no == 1 ? fix_query(param) : tarn_memdb_query_fixup(param, param_no);
}

int tarn_memdb_query_fixup_mode2(void **param, int param_no) {
  if (!is_given(param, param_no)) return -1;
  return param_no == 1 ? fix_query(param) : tarn_memdb_query_fixup2(param, param_no);
}

int tarn_memdb_query_xavp_fixup(void **param, int param_no) {
  switch (param_no) {
    case 1:
      if (start_is_over()) return refuse_late_query(param);
      return tarn_memdb_query_fixup_mode2(param, param_no);
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
