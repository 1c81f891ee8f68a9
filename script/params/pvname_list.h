// AVP name lists with places: $avp(a)|$avp(b)||$avp(d).
#pragma once

#include "host/abi.h"

// The specs of text in a chain, one entry per place, a zeroed spec for an empty one; places are one
// more than bars. type is the host's pseudo-variable type that every spec must have, or PVT_ANY.
// Null, logged, for a text that holds anything else or when memory is short, and, silently, for no
// text. The entries are in private memory and stay for the life of the process.
pvname_list_t *parse_tarn_pvname_list(str *text, int type);
