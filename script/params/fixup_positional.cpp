// Fix-ups of the functions that don't look at the query before it is printed.
#include <cstdlib>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/fixup.h"
#include "script/params/fixup_pieces.h"
#include "script/params/param_record.h"
#include "script/params/prefix_searches.h"
#include "script/params/special_slot.h"

namespace {

// The host couldn't make a pseudo-variable of the text. Any negative number refuses the script.
constexpr int PV_REFUSED = -10;

// A query format that the host refuses is logged and let pass, as text: scripts are to load with
// such calls in routes that never run. So does one without a text, which fails at each call.
int fix_query_or_keep_text(void **param, int param_no) {
  if (fix_formats(param, param_no) == 0) return 0;
  const auto *const text = static_cast<const char *>(*param);
  return text == nullptr || remember_raw_text(text) ? 0 : -1;
}

struct number_pv_texts {
  message_text<> refused;
  message_text<> wrong_type;
};

// Turns the slot's text into a pseudo-variable that a number can be read from or written to.
int fix_number_pv(void **param, const number_pv_texts &texts) {
  if (fixup_pvar_null(param, 1) < 0) {
    LM_TEXT(L_ERR, texts.refused);
    return PV_REFUSED;
  }
  const int type = static_cast<const pv_spec_t *>(*param)->type;
  if (type == PVT_AVP || type == PVT_SCRIPTVAR) return 0;
  LM_TEXT(L_ERR, texts.wrong_type);
  return -1;
}

int fix_num_or_pv(void **param, int param_no) {
  // The message names parameter 4 for 5 as well.
  static constexpr number_pv_texts TEXTS{"Param 4 error!\n",
                                         "Pseudo variable type not accepted!\n"};
  if (!is_text_given(param, param_no)) return -1;
  const auto *const text = static_cast<const char *>(*param);
  pkg_owner<num_or_pv> number(make_record<num_or_pv>());
  if (!number) return -1;
  if (names_pv(text)) {
    const int refused = fix_number_pv(param, TEXTS);
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
  static constexpr number_pv_texts TEXTS{
      "tarn_memdb_query_fixup3(): Param 1 error!\n",
      "tarn_memdb_query_fixup3(): Pseudo variable type not accepted!\n"};
  if (!is_text_given(param, param_no)) return -1;
  const auto *const text = static_cast<const char *>(*param);
  // A target without a pseudo-variable can't be set; each call says so and goes on.
  if (!names_pv(text)) return remember_raw_text(text) ? 0 : -1;
  return fix_number_pv(param, TEXTS);
}

int fix_avps_and_numbers(void **param, int param_no) {
  switch (param_no) {
    case 3:
      return check_number_text(param, param_no);
    case 4:
    case 5:
      return fix_num_or_pv(param, param_no);
    case 6:
      return fix_row_count_target(param, param_no);
    default:
      return fix_query_and_avps(param, param_no);
  }
}

}  // namespace

int fix_formats(void **param, int param_no) { return fix_format(param, FORMAT_TEXTS, param_no); }

int fix_query_and_avps(void **param, int param_no) {
  switch (param_no) {
    case 1:
      return fix_query_or_keep_text(param, param_no);
    case 2:
      return fix_avp_list(param, param_no);
    default:
      return 0;
  }
}

int fix_query_avps_and_numbers(void **param, int param_no) {
  const int result = fix_avps_and_numbers(param, param_no);
  if (result == 0) note_prefix_search(*param, param_no);
  return result;
}

int fix_query_avps_and_formats(void **param, int param_no) {
  static constexpr format_texts TEXTS{"NULL format in P%d\n", "Wrong format[%s]\n"};
  switch (param_no) {
    case 3:
    case 4:
    case 5:
      return fix_format(param, TEXTS, param_no);
    default:
      return fix_query_and_avps(param, param_no);
  }
}

int fix_statement_and_avps(void **param, int param_no) {
  static constexpr name_list_kind WITH_HOST_SEPARATORS{
      FORMAT_TEXTS.missing, "Bad format in param n %d [%s]\n",
      [](str *text) { return parse_pvname_list(text, PVT_AVP); }};
  switch (param_no) {
    case 1:
      return fix_formats(param, param_no);
    case 2:
      return fix_name_list(param, WITH_HOST_SEPARATORS, param_no);
    default:
      return 0;
  }
}
