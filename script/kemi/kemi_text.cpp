// What is looked at in a text.
#include "script/kemi/kemi_text.h"

#include <cstring>

#define KEMI_ERR(param, ...) \
  HOST_LOG_AT(L_ERR, param.site.file, param.site.line, param.site.function, __VA_ARGS__)

bool is_good_text(const str *text, const kemi_param &param, size_t room, empty_text empty) {
  if (lacks_characters(text)) {
    if (empty == empty_text::taken) return true;
    KEMI_ERR(param, "Parameter %d is empty\n", param.number);
    return false;
  }
  const auto size = static_cast<size_t>(text->len);
  if (size >= room) {
    KEMI_ERR(param, "Parameter %d has %d bytes, which is more than %d\n", param.number, text->len,
             static_cast<int>(room) - 1);
    return false;
  }
  if (memchr(text->s, '\0', size) != nullptr) {
    KEMI_ERR(param, "Parameter %d has a zero byte in it\n", param.number);
    return false;
  }
  return true;
}
