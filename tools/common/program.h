// What all these programs do with their command line, and how they end.
#pragma once

#include <string>

// FINDINGS: something is wrong with what was read. UNREADABLE: something can't be read or written,
// or an option isn't understood.
enum exit_status { CLEAN = 0, FINDINGS = 1, UNREADABLE = 2 };

struct program {
  const char *name;
  const char *usage;  // what --help tells
};

// Ends the program for a command line that isn't understood, and tells why, and the usage, on
// stderr.
[[noreturn]] void refuse(const program &self, const std::string &why);

// Ends the program with what --help or --version tell.
[[noreturn]] void tell_help(const program &self);
[[noreturn]] void tell_version(const program &self);

// Ends what goes to standard output. False, told on stderr, if it can't be written.
bool finish_output(const program &self);
