// What the two insert functions log about a row that isn't let in.
#pragma once

#include "tables/rows/row_admission.h"

// Logs why; a full table at full_level, for it is an error to the positional insert and a warning
// to the statement.
void log_refusal(admission refused, const tarn_tbl *table, int full_level);
