// Line by line through a private range file, with the module's own scan.
#pragma once

#include <string>

#include "tools/common/findings.h"

// Tells what the module would pass over or misread in a file of that text. The port maps have to
// stand.
void check_private_ranges(const std::string &path, const std::string &text, findings *out);
