// Pieces shared by the fix-ups.
#include <cstdlib>
#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/fixup.h"
#include "script/params/pvname_list.h"
#include "script/params/raw_text.h"

bool names_pv(const char *text) { return text[0] == '$' && text[1] != '\0'; }

int fix_format(void **param, const format_words &words, int param_no) {
  auto *const text = static_cast<char *>(*param);
  if (text == nullptr) {
    LM_ERR("NULL format in %s%d\n", words.param, param_no);
    return -1;
  }
  str whole{text, static_cast<int>(strlen(text))};
  pv_elem_t *format = nullptr;
  if (pv_parse_format(&whole, &format) < 0) {
    LM_ERR("Wrong format%s[%s]\n", words.gap, text);
    return -1;
  }
  *param = format;
  return 0;
}

int fix_avp_list(void **param, int param_no) {
  auto *const text = static_cast<char *>(*param);
  if (text == nullptr) {
    LM_ERR("null format in P%d\n", param_no);
    return -1;
  }
  str whole{text, static_cast<int>(strlen(text))};
  pvname_list_t *const names = parse_tarn_pvname_list(&whole, PVT_AVP);
  if (names == nullptr) {
    LM_ERR("bad format in P%d [%s]\n", param_no, text);
    return -1;
  }
  *param = names;
  return 0;
}

int check_number_text(void **param, int param_no) {
  const auto *const text = static_cast<const char *>(*param);
  if (text == nullptr) {
    LM_ERR("null format in P%d\n", param_no);
    return -1;
  }
  if (atoi(text) >= 0) return 0;
  LM_ERR("bad format in P%d [%s]\n", param_no, text);
  return -1;
}
