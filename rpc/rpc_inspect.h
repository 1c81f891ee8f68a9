// RPC commands that show tables, commands and port maps and change nothing.
#pragma once

#include "host/abi.h"

// table name. Name, row count, column names and all rows, newest first, under the table's lock.
void tarn_memdb_rpc_show_tbl(rpc_t *rpc, void *ctx);

// table name. The same for a reader: a text per row, a line per column.
void tarn_memdb_rpc_show_tbl_p(rpc_t *rpc, void *ctx);

// table name. The table's settings, counters and state, under its lock.
void tarn_memdb_rpc_show_tbl_info(rpc_t *rpc, void *ctx);

// The names of all tables.
void tarn_memdb_rpc_show_tbls_lst(rpc_t *rpc, void *ctx);

// The names of all commands.
void tarn_memdb_rpc_show_cmds(rpc_t *rpc, void *ctx);

// Bounds, next port and private ranges of the four port maps, under their lock.
void tarn_memdb_rpc_show_pm_info(rpc_t *rpc, void *ctx);
