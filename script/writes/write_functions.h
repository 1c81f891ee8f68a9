// The script functions that write, and those on a table as a whole. Parameters are what the fix-ups
// left in their slots. Above 0 is true for the script, below 0 false, and 0 ends the script. Each
// logs why it fails.
#pragma once

#include "host/abi.h"

// Each takes the lock of its table.
int tarn_memdb_insert(sip_msg *msg, char *query, char *unused);
int tarn_memdb_delete(sip_msg *msg, char *query, char *unused);
int tarn_memdb_update(sip_msg *msg, char *query, char *values);
int tarn_memdb_clear_tbl(sip_msg *msg, char *table, char *unused);

// Takes no lock.
int tarn_memdb_row_count(sip_msg *msg, char *table, char *avp);
