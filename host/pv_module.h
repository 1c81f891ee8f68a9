// What the host's pv module offers beyond the core: making one XAVP out of a text.
#pragma once

#include "host/abi.h"

// The record that the pv module fills at start; zero before.
extern pv_api_t pv_api;

// Binds the pv module: fills pv_api and settles, once, how XAVPs are made and which container the
// host's RPC replies know. Called at start, before the host forks. False if the pv module isn't
// loaded.
bool host_import_pv();

// Makes one XAVP named xavp_name from params, a text of name='value' items separated by ';'.
// Negative on failure, also on a host that can't make XAVPs at all.
int host_explode_xavp(sip_msg *msg, str params, str xavp_name);

// The format with which rpc_t.add opens a container on this host: "(" or "[".
const char *host_rpc_container();
