// A small substitute for the SIP server that hosts the module, for tests: it defines every symbol
// that the module imports (host/imports.h; that of other script languages only where kemi.h is
// used), keeps a record of what the module does with them, and plays the host's part towards the
// module's own functions.
//
// Used in two ways. Linked with the module's object files into a unit test, or alone into a program
// that opens the built module with load_module. Link the target `standin`; it exports its symbols
// to opened modules by itself. For failing file operations link `standin_file_faults` too and see
// tests/standin/file_faults.h.
//
// One process has one stand-in. Call reset() before each test.
#pragma once

#include <string>
#include <vector>

#include "tests/standin/calls.h"
#include "tests/standin/host.h"
#include "tests/standin/log.h"
#include "tests/standin/memory.h"
#include "tests/standin/module.h"
#include "tests/standin/params.h"
#include "tests/standin/rpc.h"
#include "tests/standin/values.h"

namespace standin {

// Puts everything into its first state: all tracked blocks freed, no errors, misuses, failures,
// counts, caught messages, values, registrations. What a module still holds of the host (formats,
// blocks) is dead afterwards, so a module image should be dropped or destroyed before.
void reset();

// The names of all symbols that the stand-in offers to a module, sorted: those of host/imports.h.
std::vector<std::string> offered_symbols();

}  // namespace standin
