// Fix-ups: turning the texts of a script's parameters, once at start, into what the functions read.
//
// Each gets a parameter's slot and its number, from 1, and gives 0 or a negative number, at which
// the host refuses the script. They run after mod_init in the host's main process. What they leave
// in a slot lives in that process's private memory, which the workers inherit, for good. The fix-up
// of the XAVP selects runs in the workers as well: see script/late_param.h.
#pragma once

#include "host/abi.h"

// Slot forms: query format; AVP name list; decimal text read with atoi; num_or_pv; the host's own.

// A number that stands in the script, or a pseudo-variable that is read at each call.
struct num_or_pv {
  int32_t type;
  int32_t num;     // 0 or above
  pv_spec_t *pvs;  // set for NUM_FROM_PV
};
inline constexpr int32_t NUM_FROM_SCRIPT = 0;
inline constexpr int32_t NUM_FROM_PV = 2;

// Every parameter a format.
int tarn_memdb_query_fixup2(void **param, int param_no);

// 1: format, a refused one left as text; 2: AVP name list.
int tarn_memdb_query_fixup(void **param, int param_no);

// As above; 3: number text; 4, 5: num_or_pv; 6: pseudo-variable to set.
int tarn_memdb_query_fixup3(void **param, int param_no);

// As tarn_memdb_query_fixup; 3, 4, 5: format.
int tarn_memdb_query_fixup4(void **param, int param_no);

// 1: format; 2: AVP name list with the host's separators.
int new_tarn_memdb_query_fixup(void **param, int param_no);

// 1: query of a table known by now, its list by position or by name; 2: AVP name list.
int tarn_memdb_query_fixup_mode(void **param, int param_no);

// 1: as above; any other: format.
int tarn_memdb_query_fixup_mode2(void **param, int param_no);

// 1: as above; 2: XAVP name; 3: number text. After the start: 1 is refused, 2 a plain text.
int tarn_memdb_query_xavp_fixup(void **param, int param_no);

// 1: format; 2: query and 3: AVP name list, each widened by the place of the other port.
int tarn_memdb_port_fixup(void **param, int param_no);

// The pieces that the fix-ups above share.

// How a fix-up's messages name a parameter, and what stands before the text in brackets.
struct format_words {
  const char *param;
  const char *gap;
};

// Turns the slot's text into a format, or leaves it and logs. 0 or -1.
int fix_format(void **param, const format_words &words, int param_no);

// Turns the slot's text into a list of AVPs with empty places. 0 or -1, logged.
int fix_avp_list(void **param, int param_no);

// Checks that the slot's text isn't a negative number. 0 or -1, logged.
int check_number_text(void **param, int param_no);

// True for a text that asks for a pseudo-variable.
bool names_pv(const char *text);
