// Texts of other script languages as the parameters that the module's functions read.
#pragma once

#include <cstddef>

#include "host/abi.h"
#include "host/log.h"
#include "query/text/buffers.h"

// The function that a message's head names: whichever of the module's a script has called.
struct kemi_site : host_log_site {
  kemi_site(const char *in_file = __builtin_FILE(), int at_line = __builtin_LINE(),
            const char *in_function = __builtin_FUNCTION())
      : host_log_site{in_file, at_line, in_function} {}
};

// A parameter of it, counted from 1.
struct kemi_param {
  // NOLINTNEXTLINE(google-explicit-constructor): functions give the number alone.
  kemi_param(int place, const kemi_site &of = {}) : number(place), site(of) {}

  int number;
  kemi_site site;
};

// Whether a text of no characters is one.
enum class empty_text { refused, taken };

// True for a text of no characters, as other languages give one for their null.
inline bool lacks_characters(const str *text) {
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
    if (!lacks_characters(text)) format_.text = *text;
    return true;
  }

  char *slot() { return reinterpret_cast<char *>(&format_); }

 private:
  pv_elem_t format_{};
};
