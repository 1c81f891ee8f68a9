// RPC commands that show settings, names and port maps and change nothing.
#pragma once

#include "host/abi.h"

// table name. The table's settings, counters and state, under its lock.
void tarn_memdb_rpc_show_tbl_info(rpc_t *rpc, void *ctx);

// The names of all tables.
void tarn_memdb_rpc_show_tbls_lst(rpc_t *rpc, void *ctx);

// The names of all commands.
void tarn_memdb_rpc_show_cmds(rpc_t *rpc, void *ctx);

// Bounds, next port and private ranges of the four port maps, under their lock.
void tarn_memdb_rpc_show_pm_info(rpc_t *rpc, void *ctx);
