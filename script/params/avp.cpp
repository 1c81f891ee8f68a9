// Resolving and adding.
#include "script/params/avp.h"

#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/special_slot.h"

bool resolve_avp(sip_msg *msg, pv_spec_t *spec, avp_target *target) {
  // Only an AVP's name may be another variable. In other specs that place may hold a record of the
  // host's own, which it would take for one.
  if (spec->type != PVT_AVP && spec->pvp.pvn.type != PV_NAME_INTSTR) return false;
  return pv_get_avp_name(msg, &spec->pvp, &target->name, &target->type) == 0;
}

bool add_text_avp(const avp_target &target, const char *text) {
  int_str value;
  value.s = {const_cast<char *>(text), static_cast<int>(strlen(text))};
  if (add_avp(target.type | AVP_VAL_STR, target.name, value) == 0) return true;
  LM_ERR("Could not add avp\n");
  return false;
}

bool add_text_to_param(sip_msg *msg, const char *slot, const char *text) {
  const auto *const format = reinterpret_cast<const pv_elem_t *>(slot);
  avp_target target;
  if (is_raw_text(slot) || format->spec == nullptr || !resolve_avp(msg, format->spec, &target)) {
    LM_TEXT(L_ERR, NO_AVP_NAME);
    return false;
  }
  return add_text_avp(target, text);
}
