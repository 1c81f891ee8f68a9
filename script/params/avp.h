// AVPs as targets of script functions.
#pragma once

#include "host/abi.h"
#include "host/message_text.h"

// Of a place whose name can't be told, for those who tell it.
inline constexpr message_text<> NO_AVP_NAME{"Could not get avp name\n"};

struct avp_target {
  int_str name;
  avp_flags_t type;
};

// Resolves a pseudo-variable to the AVP that it names. False if the host can't; an empty place of a
// list resolves to an empty name.
bool resolve_avp(sip_msg *msg, pv_spec_t *spec, avp_target *target);

inline bool is_named(const avp_target &target) { return target.name.s.s != nullptr; }

// Adds text as a value ahead of those that the AVP has. False, logged, if the host can't.
bool add_text_avp(const avp_target &target, const char *text);

// Adds text to the AVP that stands first in a fixed-up format. False, logged, if there is none or
// the host can't.
bool add_text_to_param(sip_msg *msg, const char *slot, const char *text);
