// Findings, for people or for programs.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>

#include "tools/common/findings.h"

// One line each: FILE:LINE: WEIGHT: TEXT.
void print_findings(std::ostream &out, const findings &found);

// A list with an object for each.
nlohmann::json json_of(const findings &found);
