// Functions that give a text.
#include <cstring>
#include <string_view>

#include "host/log.h"
#include "host/memory.h"
#include "query/text/buffers.h"
#include "query/text/field_strings.h"
#include "script/kemi/kemi_functions.h"
#include "script/kemi/kemi_text.h"
#include "script/select/select_bodies.h"

namespace {

sr_kemi_xval_t result;

// Of a column longer than the buffer; kept, since the host copies results when the call is over.
char *long_text;

sr_kemi_xval_t *give_null() {
  result = {SR_KEMIP_NULL, {.s = {nullptr, 0}}};
  return &result;
}

sr_kemi_xval_t *give_text(const str &text) {
  result = {SR_KEMIP_STR, {.s = text}};
  return &result;
}

// Room for a text of that size; null, logged, if memory is short.
char *room_for(size_t size) {
  if (size <= sizeof(update_buf)) return update_buf;
  auto *const longer = static_cast<char *>(pkg_realloc(long_text, size));
  if (longer == nullptr) {
    LM_ERR("No more memory for a value of %d bytes\n", static_cast<int>(size));
    return nullptr;
  }
  return long_text = longer;
}

bool copy_to_result(std::string_view text) {
  char *const room = room_for(text.size() + 1);
  if (room == nullptr) return false;
  memcpy(room, text.data(), text.size());
  room[text.size()] = '\0';
  give_text({room, static_cast<int>(text.size())});
  return true;
}

}  // namespace

sr_kemi_xval_t *kemi_escape(sip_msg *, str *text) {
  const host_log_scope log;
  const str none{update_buf, 0};
  const str *const given = lacks_characters(text) ? &none : text;
  const uint32_t size = tarn_memdb_escaped_len(given);
  if (size >= sizeof(update_buf)) {
    LM_ERR("%d bytes come to %d, for which no query has room\n", given->len,
           static_cast<int>(size));
    return give_null();
  }
  // A zero byte goes through: whatever query it comes to refuses it, without ending the script.
  str escaped{update_buf, 0};
  tarn_memdb_escape(given, &escaped);
  update_buf[escaped.len] = '\0';
  return give_text(escaped);
}

sr_kemi_xval_t *kemi_get(sip_msg *msg, str *query, int column) {
  const host_log_scope log;
  kemi_text text;
  if (!text.take(query, 1) || select_text(msg, text.slot(), column, copy_to_result) != SCRIPT_OK)
    return give_null();
  return &result;
}
