// The module's public symbols: what the host's loader looks up by name.
#pragma once

#include "host/abi.h"

#define HOST_PUBLIC __attribute__((visibility("default")))

extern "C" {
HOST_PUBLIC extern const char *module_version;
HOST_PUBLIC extern const char *module_flags;
HOST_PUBLIC extern unsigned int module_interface_ver;
HOST_PUBLIC extern const module_exports_t exports;
}
