// Collecting and printing findings.
#include "tools/check/findings.h"

#include <nlohmann/json.hpp>
#include <ostream>

namespace {

// Control characters of damaged files would change how a terminal shows the line.
std::string printable(const std::string &text) {
  constexpr char DIGITS[] = "0123456789abcdef";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte != 0x7f)
      out += c;
    else
      out += {'\\', 'x', DIGITS[byte / 16], DIGITS[byte % 16]};
  }
  return out;
}

const char *name_of(severity weight) { return weight == severity::error ? "error" : "warning"; }

}  // namespace

void findings::warn(const std::string &file, size_t line, const std::string &text) {
  all_.push_back({file, line, severity::warning, text});
}

void findings::error(const std::string &file, size_t line, const std::string &text) {
  all_.push_back({file, line, severity::error, text});
}

void findings::unreadable(const std::string &file) {
  error(file, 0, "can't be read");
  any_unreadable_ = true;
}

void findings::print(std::ostream &out) const {
  for (const finding &one : all_) {
    out << one.file << ':';
    if (one.line != 0) out << one.line << ':';
    out << ' ' << name_of(one.weight) << ": " << printable(one.text) << '\n';
  }
}

void findings::print_json(std::ostream &out) const {
  nlohmann::json list = nlohmann::json::array();
  for (const finding &one : all_)
    list.push_back({{"file", one.file},
                    {"line", one.line},
                    {"severity", name_of(one.weight)},
                    {"text", one.text}});
  // Bytes that are no UTF-8 come from damaged files; they are shown as replacement characters.
  out << nlohmann::json{{"clean", all_.empty()}, {"findings", list}}.dump(
             2, ' ', false, nlohmann::json::error_handler_t::replace)
      << '\n';
}
