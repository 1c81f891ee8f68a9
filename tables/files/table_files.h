// The files that carry a table across restarts: a main file, and behind it a backup with the
// generation before.
//
// The first line is "Version 1". Every further line is a row, oldest first, its fields in column
// order with bars between them, written as they are. The reader takes each line for an insert query
// and so honours escapes; it also skips empty lines and lines that begin with '#'.
#pragma once

#include <cstdint>

#include "tables/files/file_access.h"
#include "tables/tarn_tbl.h"

// Module parameters.
struct store_parameters {
  int32_t automatic;  // 0 where the timer doesn't store
  int32_t interval;   // of the timer, in seconds
};
extern store_parameters store_settings;

// Empties the table and fills it from its main file, or from the backup if the main file is missing
// or bad. A bad file is renamed to its name with ".refused" behind it, and told at WARN; what is no
// regular file, or can't be renamed, is removed. Counts the rows' ports into the port maps. A table
// that finds no usable file starts empty. state stays as it is.
void load_table(tarn_tbl *table) NEEDS_LOCK(table->lock);

// Has the table's counts tell of the main file that it was loaded from; nothing if that was the
// backup, or none.
void note_loaded_file(const tarn_tbl *table) NEEDS_LOCK(table->lock);

// Throws the rows away for those of the table's file, by load_table, and marks the table as
// changed. A process that ends in the midst of it leaves a table that isn't stored any more.
void reload_table(tarn_tbl *table) NEEDS_LOCK(table->lock);

// Writes the table to its files if its state calls for it, and sets the state to unchanged. Takes
// the table's lock and holds it while it writes. True also if there was nothing to do; false,
// logged, with the state kept, so that the next pass tries again.
bool store_table(tarn_tbl *table) WITHOUT_LOCK(table->lock);

// Makes path a file of the version line alone, with these rights if there is none yet. False,
// logged, if that fails: the file is then removed if it can be, unless it couldn't be opened and
// path is written as a directory's.
bool clear_file(const char *path, const file_access &access);

// store_table for every table, and then gives back what was kept for readers. Both arguments are
// the host's timer's and are ignored.
void store_table_mngt(unsigned int ticks, void *param);
