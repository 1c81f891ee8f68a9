// The files that carry a table across restarts: a main file, and behind it a backup with the
// generation before.
//
// The first line is "Version 1". Every further line is a row, oldest first, its fields in column
// order with bars between them, written as they are. The reader takes each line for an insert query
// and so honours escapes; it also skips empty lines and lines that begin with '#'.
#pragma once

#include <cstdint>

#include "tables/tarn_tbl.h"

// Module parameters: whether the timer stores, and its period in seconds.
extern int32_t g_store_tbl_auto;
extern int32_t g_store_tbl_interval;

// Empties the table and fills it from its main file, or from the backup if the main file is missing
// or bad. A bad file is renamed to its name with ".refused" behind it, and told at WARN; what is no
// regular file, or can't be renamed, is removed. Counts the rows' ports into the port maps. Always
// 0: a table that finds no usable file starts empty. Takes no lock: the caller holds the table's,
// or there is one process only. state stays as it is.
int32_t load_table(tarn_tbl *table);

// Throws the rows away for those of the table's file, by load_table, and marks the table as
// changed. The caller holds the table's lock. A process that ends in the midst of it leaves a table
// that isn't stored any more. Always 0.
int32_t reload_table(tarn_tbl *table);

// Writes the table to its files if its state calls for it, and sets the state to unchanged. Takes
// the table's lock and holds it while it writes. 0, also if there was nothing to do, or -1 with the
// state kept, so that the next pass tries again.
int32_t store_table(tarn_tbl *table);

// Makes path a file of the version line alone. 0, or -1 with the file removed, where it can be and
// path isn't written as a directory's.
int32_t clear_file(const char *path);

// store_table for every table. Both arguments are the host's timer's and are ignored.
void store_table_mngt(unsigned int ticks, void *param);
