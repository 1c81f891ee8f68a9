// What an operator can call, in the order in which it is listed.
#include "rpc/rpc_commands.h"

rpc_export_t tarn_memdb_rpc_cmds[] = {
    {},
};
