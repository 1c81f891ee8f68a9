// Refused formats, and records of the host's own form.
#include "script/params/special_slot.h"

#include <cstddef>
#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/param_record.h"

namespace {

// Made before the host forks, and nearly always empty.
struct raw_text {
  const void *text;
  raw_text *next;
};

raw_text *raw_texts;

bool after_start;

// What the text of a refused query's record points to. By its address it is told from a format:
// nothing else has this one there.
char REFUSED[] = "";

// The record owns nothing but itself: the host frees the texts.
int put_record(void **param, const str &text) {
  auto *const record = make_record<fparam_t>();
  if (record == nullptr) return -1;
  *record = {static_cast<char *>(*param), FPARAM_STR, {text}, &record->v};
  *param = record;
  return 0;
}

}  // namespace

void end_start() { after_start = true; }

bool start_is_over() {
  // Other modules may run routes in their child_init, ahead of ours.
  return after_start || (&fixup_complete != nullptr && fixup_complete != 0);
}

int refuse_late_query(void **param) {
  LM_ERR(
      "The query of an XAVP select can't be an expression or come by KSR.x.modf: write it as one text with pseudo-variables in it, as in \"users,$hdr(X-Q)\"\n");
  return put_record(param, {REFUSED, 0});
}

int take_late_text(void **param) {
  auto *const text = static_cast<char *>(*param);
  return put_record(param, {text, text == nullptr ? 0 : static_cast<int>(strlen(text))});
}

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

bool is_unprintable(const char *slot) {
  if (slot == nullptr) return false;
  // The word at this place is there in a format as well: its first pseudo-variable.
  static_assert(offsetof(fparam_t, v) == offsetof(pv_elem_t, spec));
  if (is_raw_text(slot)) return true;
  const char *word;
  memcpy(&word, slot + offsetof(fparam_t, v), sizeof(word));
  return word == REFUSED;
}
