// Places and lines.
#include "tools/common/line_index.h"

#include <algorithm>

namespace {

constexpr char SPACE[] = " \t\r\n\v\f";

}  // namespace

line_index::line_index(std::string text) : text_(std::move(text)) {
  for (size_t at = text_.find('\n'); at != std::string::npos; at = text_.find('\n', at + 1))
    ends_.push_back(at);
}

size_t line_index::next_text(size_t offset) const {
  return std::min(text_.find_first_not_of(SPACE, offset), text_.size());
}

size_t line_index::line_at(size_t offset) const {
  const auto end = std::lower_bound(ends_.begin(), ends_.end(), next_text(offset));
  return 1 + static_cast<size_t>(end - ends_.begin());
}

std::string_view line_index::rest_of_line(size_t offset) const {
  const std::string_view rest = std::string_view(text_).substr(next_text(offset));
  return rest.substr(0, rest.find_first_of("\r\n"));
}

std::string_view line_index::word_at(size_t offset) const {
  const std::string_view rest = std::string_view(text_).substr(next_text(offset));
  return rest.substr(0, rest.find_first_of(SPACE));
}

bool line_index::is_end(size_t offset) const { return next_text(offset) == text_.size(); }

bool line_index::is_behind_space(size_t offset) const {
  return offset == 0 || std::string_view(SPACE).find(text_[offset - 1]) != std::string_view::npos;
}
