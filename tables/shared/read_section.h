// Read sections: how functions without a lock walk rows that writers take out meanwhile.
//
// A row that is taken out stays as it is, links included, until every section has ended that had
// begun before. No section waits for a writer, and no writer for a section: rows that can't be
// given back yet are kept until a later removal finds that they can. This is epoch-based
// reclamation (Fraser, "Practical lock-freedom", 2004) with two counts of readers that take turns,
// as in the sleepable RCU of Linux (McKenney, "Sleepable Read-Copy Update", 2006).
#pragma once

#include <cstdint>

#include "memdb/memdb.h"

inline constexpr uint32_t READER_COUNTS = 32;

// Sections that are open, by the turn in which they began. Each process has one of these, or
// shares it where there are more processes, two cache lines from anything else that is written,
// since processors fetch lines in pairs.
struct reader_count {
  uint32_t apart[30];
  uint32_t inside[2];
};

// In shared memory, all zero at first.
struct read_sections {
  uint32_t turn;           // 0 or 1: which count the sections that begin now go into
  uint32_t readers;        // processes that have been given a count
  uint32_t moving;         // 1 while a process moves rows on from list to list
  uint32_t waiting;        // rows in the three lists
  memdb_row *retired;      // rows taken out; each list is linked through prev
  memdb_row *passed_none;  // taken from there, at the end of a turn
  memdb_row *passed_one;   // have outlived all sections of one count; the other one's are left
  reader_count counts[READER_COUNTS];
  uint32_t apart[30];
};

// Settles where sections are counted, for this process and those that it forks: in shared memory,
// all zero. Null, as at first, for nowhere: no section keeps a row then.
void use_read_sections(read_sections *all);

// Keeps the rows that it may meet from being given back, from here to the end of the scope.
class read_section {
 public:
  read_section();
  ~read_section();
  read_section(const read_section &) = delete;
  read_section &operator=(const read_section &) = delete;

 private:
  uint32_t *inside_ = nullptr;
};

// Gives a row's block back that no list and no chain leads to any more: at once if no section is
// open. Else it is kept until all have ended that are open now, and goes with a later row or with
// settle_retired_rows. Takes no lock and no memory. The row's prev is overwritten, and nothing else
// is looked at: any block goes whose first 8 bytes no reader needs.
void retire_row(memdb_row *row);

// Gives back what need not be kept any longer. To be called now and then with no lock held.
void settle_retired_rows();

// How many are kept at present. Of a process that ended amid the work one may be counted for ever.
uint32_t retired_row_count();

// Gives back all retired rows. Only for a process that is alone.
void free_retired_rows();
