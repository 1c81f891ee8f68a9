// Telling literals of the module from values.
#include "tests/standin/whole_text.h"

#include <link.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/standin/calls.h"
#include "tests/standin/text.h"

namespace standin {
namespace {

struct memory_range {
  uintptr_t start;
  uintptr_t end;
};

std::vector<memory_range> &literals() {
  static std::vector<memory_range> &only = *new std::vector<memory_range>;
  return only;
}

// Values that the source settles: the version of table files, a value that isn't there, the default
// of a path, and the word that a statement lacks.
bool is_value(std::string_view text, std::string_view format) {
  constexpr std::array<std::string_view, 3> VALUES = {"", "(null)", "Version 1"};
  return std::find(VALUES.begin(), VALUES.end(), text) != VALUES.end() || text.front() == '/' ||
         format.find("token '%s'") != std::string_view::npos;
}

bool is_literal(const char *text) {
  const auto place = reinterpret_cast<uintptr_t>(text);
  const auto holds = [place](const memory_range &range) {
    return range.start <= place && place < range.end;
  };
  return std::any_of(literals().begin(), literals().end(), holds);
}

// Takes the argument of the conversion at *at, which is behind its percent sign, and goes behind
// the conversion. The module writes %s, %.*s, %d, %u, %x and %lu.
void take_conversion(const char **at, va_list *arguments, const char *format) {
  bool is_long = false;
  for (;; ++*at) {
    switch (**at) {
      case '*':
        va_arg(*arguments, int);
        break;
      case 'l':
        is_long = true;
        break;
      case 's': {
        const char *const text = va_arg(*arguments, const char *);
        if (text != nullptr && is_literal(text) && !is_value(text, format))
          note_misuse(std::string("a text put together: '") + text + "' in '" + format + "'");
        return;
      }
      case '%':
      case '\0':
        return;
      case 'd':
      case 'u':
      case 'x':
        if (is_long)
          va_arg(*arguments, long);
        else
          va_arg(*arguments, int);
        return;
      default:
        break;
    }
  }
}

}  // namespace

void watch_literals_of(void *image) {
  literals().clear();
  if (image == nullptr) return;
  uintptr_t base = static_cast<const link_map *>(image)->l_addr;
  dl_iterate_phdr(
      [](dl_phdr_info *info, size_t, void *data) {
        if (info->dlpi_addr != *static_cast<const uintptr_t *>(data)) return 0;
        for (size_t i = 0; i < info->dlpi_phnum; i++) {
          const auto &segment = info->dlpi_phdr[i];
          if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
          const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
          literals().push_back({start, start + segment.p_memsz});
        }
        return 1;
      },
      &base);
}

void expect_whole_text(const char *format, va_list arguments) {
  if (!is_literal(format)) return;
  va_list copy;
  va_copy(copy, arguments);
  if (std::string_view(format) == "%s" || std::string_view(format) == "%s\n") {
    note_misuse("a text that isn't its own format: " + print_text(format, copy));
    va_end(copy);
    return;
  }
  for (const char *at = format; *at != '\0'; ++at) {
    if (*at != '%') continue;
    ++at;
    take_conversion(&at, &copy, format);
    if (*at == '\0') break;
  }
  va_end(copy);
}

}  // namespace standin
