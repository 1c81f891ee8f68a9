// AVP name lists that come as texts at each call. Each is parsed once in a process and kept by its
// text: parsing costs more than a select.
#pragma once

#include <cstdint>
#include <string_view>

#include "host/abi.h"

// What is kept in each process. Of more than that the oldest lists are given up: they are parsed
// again when they come again. A list of more places than that is kept alone.
inline constexpr uint32_t MOST_KEPT_LISTS = 64;
inline constexpr uint32_t MOST_KEPT_PLACES = 1024;  // of all lists together, 96 bytes each

// The list of a text of plain names, as in "$avp(a)||$avp(b)", kept until the next call at least.
// Null, logged, for a name that has to be evaluated, anything that is no AVP's name, or if memory
// is short. The text holds no zero byte.
pvname_list_t *kept_avp_list(std::string_view text);
