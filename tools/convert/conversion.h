// From one schema to another.
#pragma once

#include "tools/common/findings.h"
#include "tools/convert/options.h"
#include "tools/convert/report.h"

// Writes the new files of all tables, and puts them into place if that is asked for. Nothing is
// changed if anything is told as an error.
void convert(const options &given, run_report *run, findings *found);
