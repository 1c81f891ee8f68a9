// Fix-ups of the functions that don't look at the query before it is printed.
#include <cstdlib>
#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "host/memory.h"
#include "script/params/fixup.h"
#include "script/params/raw_text.h"

namespace {

// The host couldn't make a pseudo-variable of the text. Any negative number refuses the script.
constexpr int PV_REFUSED = -10;

// A query format that the host refuses is logged and let pass, as text: scripts are to load with
// such calls in routes that never run. So does one without a text, which fails at each call.
int fix_query_or_keep_text(void **param, int param_no) {
  if (tarn_memdb_query_fixup2(param, param_no) == 0) return 0;
  const auto *const text = static_cast<const char *>(*param);
  return text == nullptr || remember_raw_text(text) ? 0 : -1;
}

// Turns the slot's text into a pseudo-variable that a number can be read from or written to.
int fix_number_pv(void **param, const char *error, const char *wrong_type) {
  if (fixup_pvar_null(param, 1) < 0) {
    LM_ERR("%s", error);
    return PV_REFUSED;
  }
  const int type = static_cast<const pv_spec_t *>(*param)->type;
  if (type == PVT_AVP || type == PVT_SCRIPTVAR) return 0;
  LM_ERR("%s", wrong_type);
  return -1;
}

int fix_num_or_pv(void **param, int param_no) {
  const auto *const text = static_cast<const char *>(*param);
  if (text == nullptr) return check_number_text(param, param_no);
  pkg_owner<num_or_pv> number(pkg_array<num_or_pv>(1));
  if (!number) {
    LM_ERR("No more memory!\n");
    return -1;
  }
  if (names_pv(text)) {
    // The message names parameter 4 for 5 as well.
    const int refused =
        fix_number_pv(param, "Param 4 error!\n", "Pseudo variable type not accepted!\n");
    if (refused != 0) return refused;
    number[0] = {NUM_FROM_PV, 0, static_cast<pv_spec_t *>(*param)};
  } else {
    if (check_number_text(param, param_no) != 0) return -1;
    number[0] = {NUM_FROM_SCRIPT, atoi(text), nullptr};
  }
  *param = number.release();
  return 0;
}

int fix_row_count_target(void **param, int param_no) {
  const auto *const text = static_cast<const char *>(*param);
  if (text == nullptr) return check_number_text(param, param_no);
  // A target without a pseudo-variable can't be set; each call says so and goes on.
  if (!names_pv(text)) return remember_raw_text(text) ? 0 : -1;
  return fix_number_pv(param, "tarn_memdb_query_fixup3(): Param 1 error!\n",
                       "tarn_memdb_query_fixup3(): Pseudo variable type not accepted!\n");
}

}  // namespace

int tarn_memdb_query_fixup2(void **param, int param_no) {
  return fix_format(param, {"param n ", " "}, param_no);
}

int tarn_memdb_query_fixup(void **param, int param_no) {
  switch (param_no) {
    case 1:
      return fix_query_or_keep_text(param, param_no);
    case 2:
      return fix_avp_list(param, param_no);
    default:
      return 0;
  }
}

int tarn_memdb_query_fixup3(void **param, int param_no) {
  switch (param_no) {
    case 3:
      return check_number_text(param, param_no);
    case 4:
    case 5:
      return fix_num_or_pv(param, param_no);
    case 6:
      return fix_row_count_target(param, param_no);
    default:
      return tarn_memdb_query_fixup(param, param_no);
  }
}

int tarn_memdb_query_fixup4(void **param, int param_no) {
  switch (param_no) {
    case 3:
    case 4:
    case 5:
      return fix_format(param, {"P", ""}, param_no);
    default:
      return tarn_memdb_query_fixup(param, param_no);
  }
}

int new_tarn_memdb_query_fixup(void **param, int param_no) {
  switch (param_no) {
    case 1:
      return tarn_memdb_query_fixup2(param, param_no);
    case 2: {
      auto *const text = static_cast<char *>(*param);
      if (text == nullptr) {
        LM_ERR("NULL format in param n %d\n", param_no);
        return -1;
      }
      str whole{text, static_cast<int>(strlen(text))};
      pvname_list_t *const names = parse_pvname_list(&whole, PVT_AVP);
      if (names == nullptr) {
        LM_ERR("Bad format in param n %d [%s]\n", param_no, text);
        return -1;
      }
      *param = names;
      return 0;
    }
    default:
      return 0;
  }
}
