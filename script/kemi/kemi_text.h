// Texts of other script languages as the parameters that the module's functions read.
#pragma once

#include <string_view>

#include "host/abi.h"
#include "query/text/buffers.h"

// Which parameter of which function, for messages.
struct kemi_param {
  const char *function;
  int number;
};

// Whether a text of no characters is one.
enum class empty_text { refused, taken };

// True for a text of no characters, as other languages give one for their null.
inline bool is_empty(const str *text) {
  return text == nullptr || text->s == nullptr || text->len <= 0;
}

// True if the parameter holds a text of less than room bytes without a zero byte, which would cut
// it. Else false, logged.
bool is_good_text(const str *text, const kemi_param &param, size_t room,
                  empty_text empty = empty_text::refused);

// A parameter in the form that a fix-up gives to a text in which no pseudo-variable stands: a
// format of one piece, which prints as that text.
class kemi_text {
 public:
  // Takes the text, which has to stay, if it is good, or else gives false, logged.
  bool take(const str *text, const kemi_param &param, size_t room = TEXT_BUFFER_SIZE,
            empty_text empty = empty_text::refused) {
    if (!is_good_text(text, param, room, empty)) return false;
    if (!is_empty(text)) format_.text = *text;
    return true;
  }

  char *slot() { return reinterpret_cast<char *>(&format_); }

 private:
  pv_elem_t format_{};
};
