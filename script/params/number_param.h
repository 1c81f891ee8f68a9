// Numbers that a script gives in its text or through a pseudo-variable.
#pragma once

#include <cstdint>

#include "script/params/fixup.h"

// Reads the number for the message. False, logged, for a pseudo-variable that can't be read or
// holds no integer; not_integer is the message of the latter.
bool read_number(sip_msg *msg, const num_or_pv *param, const char *not_integer, int32_t *number);
