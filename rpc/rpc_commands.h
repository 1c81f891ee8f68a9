// The table of RPC commands.
#pragma once

#include "host/abi.h"

// Ends in a row with a null name. The host keeps the address.
extern rpc_export_t tarn_memdb_rpc_cmds[];
