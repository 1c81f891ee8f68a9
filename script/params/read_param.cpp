// One call into the host per parameter.
#include "script/params/read_param.h"

#include "host/imports.h"
#include "host/log.h"
#include "script/params/special_slot.h"

str print_param(sip_msg *msg, const char *slot, std::span<char> buffer) {
  auto *const format = reinterpret_cast<pv_elem_t *>(const_cast<char *>(slot));
  int len = static_cast<int>(buffer.size());
  if (is_unprintable(slot) || pv_printf(msg, format, buffer.data(), &len) < 0 || len < 0)
    return {nullptr, 0};
  return {buffer.data(), len};
}

str print_or_refuse(sip_msg *msg, const char *slot, std::span<char> buffer,
                    const message_text<> &refusal) {
  const str text = print_param(msg, slot, buffer);
  if (is_printed(text)) return text;
  LM_TEXT(L_ERR, refusal);
  return {nullptr, 0};
}

bool read_number(sip_msg *msg, const num_or_pv *param, const message_text<> &not_integer,
                 int32_t *number) {
  switch (param->type) {
    case NUM_FROM_SCRIPT:
      *number = param->num;
      return true;
    case NUM_FROM_PV: {
      pv_value_t value{};
      if (pv_get_spec_value(msg, param->pvs, &value) != 0) {
        LM_ERR("Cannot get flags value\n");
        return false;
      }
      if ((value.flags & PV_VAL_INT) == 0) {
        LM_TEXT(L_ERR, not_integer);
        return false;
      }
      *number = static_cast<int32_t>(value.ri);
      return true;
    }
    default:
      LM_ERR("get flags value Error\n");
      return false;
  }
}
