// RPC commands that empty tables, reload one from its files, and force a store.
#pragma once

#include "host/abi.h"

// Empties every table, the port maps, and the files of all, backups included.
void tarn_memdb_rpc_clear_all(rpc_t *rpc, void *ctx);

// table name. Empties the table and its files, the backup included. The ports that its rows held
// stay taken.
void tarn_memdb_rpc_clear_tbl(rpc_t *rpc, void *ctx);

// table name. Replaces the rows by those of the table's file, under the table's lock. Counts the
// ports of the loaded rows once more.
void tarn_memdb_rpc_reload_table(rpc_t *rpc, void *ctx);

// table name. Tells the row count and stores the table if it was changed.
void tarn_memdb_rpc_sync_tbl(rpc_t *rpc, void *ctx);
