// What is looked at in a text.
#include "script/kemi/kemi_text.h"

#include <cstring>

#include "host/log.h"

bool is_good_text(const str *text, const kemi_param &param, size_t room, empty_text empty) {
  if (is_empty(text)) {
    if (empty == empty_text::taken) return true;
    LM_ERR("KSR.tarn_memdb.%s: parameter %d is empty\n", param.function, param.number);
    return false;
  }
  const auto size = static_cast<size_t>(text->len);
  if (size >= room) {
    LM_ERR("KSR.tarn_memdb.%s: parameter %d has %d bytes, which is more than %d\n", param.function,
           param.number, text->len, static_cast<int>(room) - 1);
    return false;
  }
  if (memchr(text->s, '\0', size) != nullptr) {
    LM_ERR("KSR.tarn_memdb.%s: parameter %d has a zero byte in it\n", param.function, param.number);
    return false;
  }
  return true;
}
