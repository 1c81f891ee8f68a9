// Slots that hold something else than what their function's fix-up leaves as a rule.
//
// A text whose format the host refuses at start stays as it is, so that the script loads.
//
// After its start the host fixes up expressions, and calls from other script languages. It does so
// for functions with a free fix-up, the XAVP selects, in the worker, at each call, with a text that
// may be a caller's, and gives every slot to fixup_free_spve_spve when the call is over. That
// function takes a slot for an fparam_t, so these slots hold one, whatever the parameter is. Their
// texts are never parsed: a `$` in them may come from the network.
#pragma once

#include "host/abi.h"

// Remembers a slot's text for the life of the process. False if memory is short.
bool remember_raw_text(const char *text);

// True if the slot holds a remembered text, which must never be taken for a format.
bool is_raw_text(const void *slot);

// The start is over, in this process and in those that it forks.
void end_start();
bool start_is_over();

// Refuses the query in the slot, with a line at ERR, and leaves a record there that nothing prints.
// 0, since the host loses what it has made when a fix-up fails, or -1, logged, if memory is short;
// the slot then keeps its text.
int refuse_late_query(void **param);

// Turns the slot's text into a parameter that is read as it stands. 0, or -1 as above.
int take_late_text(void **param);

// True if the slot, which holds a format, a record or nothing, is a remembered text or a refused
// query's.
bool is_unprintable(const char *slot);
