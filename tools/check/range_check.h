// Line by line through a private range file, with the module's own scan.
#pragma once

#include <string>

#include "tools/check/findings.h"

// Tells what the module would pass over or misread. The port maps have to stand. False if the file
// can't be read.
bool check_private_ranges(const std::string &path, findings *out);
