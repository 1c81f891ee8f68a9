// The script functions that take a statement. Parameters are what the fix-ups left in their slots.
// Above 0 is true for the script, below 0 false, and 0 ends the script. Each takes its table's lock
// and logs why it fails.
#pragma once

#include "host/abi.h"

// Statements; see statement_*.cpp.
int sqll_tarn_memdb_insert(sip_msg *msg, char *statement, char *unused);
int sqll_tarn_memdb_delete(sip_msg *msg, char *statement, char *unused);
int sqll_tarn_memdb_select(sip_msg *msg, char *statement, char *avps);
int sqll_tarn_memdb_update(sip_msg *msg, char *statement, char *unused);
