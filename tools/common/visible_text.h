// Texts of files and paths as a report can show them.
#pragma once

#include <string>
#include <string_view>

// The text with an escape, \xHH, in place of each byte that can't be seen or would change how a
// terminal shows the line: control characters, what isn't UTF-8, and characters without a form of
// their own, such as a byte order mark. The result is UTF-8.
std::string visible(std::string_view text);

// The text between quotes, its beginning where it is long. Bytes as they stand.
std::string in_quotes(std::string_view text);

// "1 row", "2 rows".
std::string counted(size_t number, const char *thing);
