// One call into the host per parameter.
#include "script/params/print_param.h"

#include "host/imports.h"
#include "host/log.h"
#include "script/params/late_param.h"
#include "script/params/raw_text.h"

str print_param(sip_msg *msg, const char *slot, std::span<char> buffer) {
  auto *const format = reinterpret_cast<pv_elem_t *>(const_cast<char *>(slot));
  int len = static_cast<int>(buffer.size());
  if (is_raw_text(slot) || is_refused_query(slot) ||
      pv_printf(msg, format, buffer.data(), &len) < 0 || len < 0)
    return {nullptr, 0};
  return {buffer.data(), len};
}

str print_or_refuse(sip_msg *msg, const char *slot, std::span<char> buffer, const char *refusal) {
  const str text = print_param(msg, slot, buffer);
  if (is_printed(text)) return text;
  LM_ERR("%s", refusal);
  return {nullptr, 0};
}
