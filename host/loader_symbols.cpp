// The three values by which the loader decides whether this build fits the host.
#include "host/loader_symbols.h"

#include "host/version.h"

// The loader reads the first two as variables of type char *.
const char *module_version = TARN_HOST_VERSION;
const char *module_flags = TARN_HOST_FLAGS;
unsigned int module_interface_ver = MODULE_INTERFACE_VERSION;
