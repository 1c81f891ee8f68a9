// Whoever searches the module's source for what a log or a fault says has to find it: texts reach
// the host as they stand in the source, with values in them and nothing put together from pieces.
#pragma once

#include <cstdarg>

namespace standin {

// Takes note of where the opened module's literals lie. Null for none.
void watch_literals_of(void *image);

// Notes a misuse for a format that is a bare "%s", and for a text among its arguments, a list that
// is left as it is, that is one of the module's own literals but for what stands for a value.
void expect_whole_text(const char *format, va_list arguments);

}  // namespace standin
