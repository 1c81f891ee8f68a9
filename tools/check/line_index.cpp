// Places and lines.
#include "tools/check/line_index.h"

#include <algorithm>

size_t line_index::next_text(size_t offset) const {
  return std::min(text_.find_first_not_of(" \t\r\n\v\f", offset), text_.size());
}

size_t line_index::line_at(size_t offset) const {
  const auto end = text_.begin() + static_cast<std::ptrdiff_t>(next_text(offset));
  return 1 + static_cast<size_t>(std::count(text_.begin(), end, '\n'));
}

std::string_view line_index::rest_of_line(size_t offset) const {
  const std::string_view rest = std::string_view(text_).substr(next_text(offset));
  return rest.substr(0, rest.find_first_of("\r\n"));
}

bool line_index::is_end(size_t offset) const { return next_text(offset) == text_.size(); }
