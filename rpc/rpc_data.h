// RPC commands that change and read rows. They take the query texts of the script functions, by
// position only. Each answers nothing, but for the lines of a select, and every refusal is a fault.
#pragma once

#include "host/abi.h"

// query. Refuses a duplicate whatever the table's schema says. Waits for the timer to be stored.
void tarn_memdb_rpc_insert(rpc_t *rpc, void *ctx);

// query. Stores at once.
void tarn_memdb_rpc_delete(rpc_t *rpc, void *ctx);

// query and new values. Waits for the timer to be stored.
void tarn_memdb_rpc_update(rpc_t *rpc, void *ctx);

// query. A line "TABLE:" and one per row, under the table's lock or without it.
void tarn_memdb_rpc_select(rpc_t *rpc, void *ctx);
void tarn_memdb_rpc_nl_select(rpc_t *rpc, void *ctx);
