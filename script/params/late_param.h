// Parameters that the host fixes up after its start: expressions, and calls from other script
// languages. It does so for functions with a free fix-up, the XAVP selects, in the worker, at each
// call, with a text that may be a caller's, and gives every slot to fixup_free_spve_spve when the
// call is over.
//
// That function takes a slot for an fparam_t, so these slots hold one, whatever the parameter is.
// Their texts are never parsed: a `$` in them may come from the network.
#pragma once

#include "host/abi.h"

// The start is over, in this process and in those that it forks.
void end_start();
bool start_is_over();

// Refuses the query in the slot, with a line at ERR, and leaves a record there that print_param
// doesn't print. 0, since the host loses what it has made when a fix-up fails, or -1, logged, if
// memory is short; the slot then keeps its text.
int refuse_late_query(void **param);

// Turns the slot's text into a parameter that is read as it stands. 0, or -1 as above.
int take_late_text(void **param);

// True if the slot, which holds a format, a record or nothing, is a refused query's.
bool is_refused_query(const char *slot);
