// Files as texts.
#pragma once

#include <optional>
#include <string>

// The file's whole text, or nothing if it can't be read to its end.
std::optional<std::string> whole_file(const std::string &path);
