// The fix-up of the port-type selects. Script authors leave out the column of the other port; the
// fix-up puts its place into the query and into the name list.
#include <cstring>
#include <string_view>

#include "host/log.h"
#include "host/memory.h"
#include "script/params/fixup.h"
#include "script/params/fixup_pieces.h"

namespace {

// Position behind the n-th bar of text, escaped or not; 0 if there are fewer.
size_t behind_bar(const char *text, int n) {
  const char *at = text;
  for (; n > 0; n--) {
    at = strchr(at, '|');
    if (at == nullptr) return 0;
    at++;
  }
  return static_cast<size_t>(at - text);
}

// Inserts more behind the n-th bar of the text in the slot, whose block moves. Null, logged, if
// memory is short; the slot then keeps its text.
char *widen(void **param, int n, std::string_view more) {
  auto *const text = static_cast<char *>(*param);
  const size_t len = strlen(text);
  auto *const wider = static_cast<char *>(pkg_realloc(text, len + more.size() + 1));
  if (wider == nullptr) {
    LM_ERR("could not allocate memory!");
    return nullptr;
  }
  const size_t place = behind_bar(wider, n);
  memmove(wider + place + more.size(), wider + place, len - place + 1);
  memcpy(wider + place, more.data(), more.size());
  *param = wider;
  return wider;
}

int fix_widened(void **param, int param_no) {
  void *fixed = *param;
  if (fix_query_and_avps(&fixed, param_no - 1) != 0) {
    LM_ERR("fixup failed!\n");
    return -1;
  }
  *param = fixed;
  return 0;
}

}  // namespace

int fix_port_pair_query(void **param, int param_no) {
  if (!is_text_given(param, param_no)) return -1;
  const auto *const text = static_cast<const char *>(*param);
  LM_DBG("P%d received=%s; len=%lu;", param_no, text, strlen(text));
  const char *wider;
  switch (param_no) {
    case 1:
      return fix_formats(param, param_no);
    case 2:
      wider = widen(param, 3, "*|");
      break;
    case 3:
      wider = widen(param, 2, "|");
      break;
    default:
      return 0;
  }
  if (wider == nullptr) return -1;
  LM_DBG("P%d after manipulation=%s;", param_no, wider);
  return fix_widened(param, param_no);
}
