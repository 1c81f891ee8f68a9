// A list, made before the host forks and nearly always empty.
#include "script/params/raw_text.h"

#include "host/memory.h"

namespace {

struct raw_text {
  const void *text;
  raw_text *next;
};

raw_text *raw_texts;

}  // namespace

bool remember_raw_text(const char *text) {
  auto *const entry = pkg_array<raw_text>(1);
  if (entry == nullptr) return false;
  *entry = {text, raw_texts};
  raw_texts = entry;
  return true;
}

bool is_raw_text(const void *slot) {
  for (const raw_text *entry = raw_texts; entry != nullptr; entry = entry->next)
    if (entry->text == slot) return true;
  return false;
}
