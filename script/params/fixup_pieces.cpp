// Formats, lists and numbers in slots.
#include "script/params/fixup_pieces.h"

#include <cstdlib>
#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/pvname_list.h"

namespace {

constexpr message_text<int> NO_TEXT{"null format in P%d\n"};
constexpr message_text<int, const char *> BAD_TEXT{"bad format in P%d [%s]\n"};

}  // namespace

bool names_pv(const char *text) { return text[0] == '$' && text[1] != '\0'; }

str slot_text(void *const *param) {
  auto *const text = static_cast<char *>(*param);
  return {text, static_cast<int>(strlen(text))};
}

bool is_given(void *const *param, int param_no, const message_text<int> &missing) {
  if (*param != nullptr) return true;
  LM_TEXT(L_ERR, missing, param_no);
  return false;
}

bool is_text_given(void *const *param, int param_no) { return is_given(param, param_no, NO_TEXT); }

int put_format(void **param, str text, const message_text<const char *> &refused) {
  pv_elem_t *format = nullptr;
  if (pv_parse_format(&text, &format) < 0) {
    LM_TEXT(L_ERR, refused, text.s);
    return -1;
  }
  *param = format;
  return 0;
}

int fix_format(void **param, const format_texts &texts, int param_no) {
  if (!is_given(param, param_no, texts.missing)) return -1;
  return put_format(param, slot_text(param), texts.refused);
}

int fix_name_list(void **param, const name_list_kind &kind, int param_no) {
  if (!is_given(param, param_no, kind.missing)) return -1;
  str text = slot_text(param);
  pvname_list_t *const names = kind.parse(&text);
  if (names == nullptr) {
    LM_TEXT(L_ERR, kind.refused, param_no, static_cast<const char *>(*param));
    return -1;
  }
  *param = names;
  return 0;
}

int fix_avp_list(void **param, int param_no) {
  static constexpr name_list_kind WITH_EMPTY_PLACES{
      NO_TEXT, BAD_TEXT, [](str *text) { return parse_tarn_pvname_list(text, PVT_AVP); }};
  return fix_name_list(param, WITH_EMPTY_PLACES, param_no);
}

int check_number_text(void **param, int param_no) {
  if (!is_text_given(param, param_no)) return -1;
  const auto *const text = static_cast<const char *>(*param);
  if (atoi(text) >= 0) return 0;
  LM_TEXT(L_ERR, BAD_TEXT, param_no, text);
  return -1;
}
