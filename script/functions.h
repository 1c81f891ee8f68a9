// Every function that a routing script can call, under its exported name. Parameters are what the
// fix-ups left in their slots. Above 0 is true for the script, below 0 false, and 0 ends the
// script.
#pragma once

#include "host/abi.h"

// Writes; see insert.cpp, delete.cpp, update.cpp, table_functions.cpp.
int tarn_memdb_insert(sip_msg *msg, char *query, char *unused);
int tarn_memdb_delete(sip_msg *msg, char *query, char *unused);
int tarn_memdb_update(sip_msg *msg, char *query, char *values);
int tarn_memdb_clear_tbl(sip_msg *msg, char *table, char *unused);
int tarn_memdb_row_count(sip_msg *msg, char *table, char *avp);

// Exact select; see select.cpp.
int tarn_memdb_select(sip_msg *msg, char *query, char *avps);
int tarn_memdb_nl_select(sip_msg *msg, char *query, char *avps);
int tarn_memdb_xavp_select(sip_msg *msg, char *query, char *xavp);
int tarn_memdb_nl_xavp_select(sip_msg *msg, char *query, char *xavp);
