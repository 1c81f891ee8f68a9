// Comes ahead of all else in each source of the module, so that one built on a new system runs on
// older ones.
//
// From glibc 2.38 on the headers lead strtol and scanf to functions that older libraries don't
// have, and which also read numbers of base 2. glibc has a macro to keep its own sources from that,
// whose name is another one from 2.41 on.
#pragma once

#include <features.h>

#undef __GLIBC_USE_C2X_STRTOL
#define __GLIBC_USE_C2X_STRTOL 0
#undef __GLIBC_USE_C23_STRTOL
#define __GLIBC_USE_C23_STRTOL 0
