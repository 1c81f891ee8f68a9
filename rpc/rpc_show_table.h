// RPC commands that show a table's rows and change nothing.
#pragma once

#include "host/abi.h"

// table name. Name, row count, column names and all rows, newest first, under the table's lock.
void tarn_memdb_rpc_show_tbl(rpc_t *rpc, void *ctx);

// table name. The same for a reader: a text per row, a line per column.
void tarn_memdb_rpc_show_tbl_p(rpc_t *rpc, void *ctx);
