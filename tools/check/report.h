// The report, for people or for programs.
#pragma once

#include <iosfwd>

#include "tools/check/forecast.h"
#include "tools/check/options.h"
#include "tools/common/findings.h"

// One line each: FILE:LINE: WEIGHT: TEXT, and a last one if there is nothing to tell.
void print_lines(std::ostream &out, const findings &found, const start_forecast &start,
                 const options &given);

// An object with the findings and what the start does.
void print_json(std::ostream &out, const findings &found, const start_forecast &start,
                const options &given);
