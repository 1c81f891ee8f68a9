// One table as CSV.
#pragma once

#include "tools/common/findings.h"
#include "tools/convert/options.h"
#include "tools/convert/report.h"

// Writes the rows of a table's file, as a start would read it, to standard output, the oldest
// first, behind a line with the columns' names. Nothing is written if anything is told as an error
// ahead of that.
void export_csv(const options &given, findings *found);

// Makes a new main file of a table of CSV, and puts it into place if that is asked for. Nothing is
// changed if anything is told as an error.
void import_csv(const options &given, run_report *run, findings *found);
