// A file that was named on the command line, as a text. It may be a pipe.
#pragma once

#include <optional>
#include <string>

// The file's whole text, or nothing, and why, if it can't be read to its end. What has no end, as
// some devices, is given up after MOST_INPUT.
inline constexpr size_t MOST_INPUT = size_t{64} << 20;
std::optional<std::string> input_text(const std::string &path, std::string *why);
