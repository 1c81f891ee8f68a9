// The registry: every table's name, limits, change state and lock, in shared memory.
//
// The set of tables, their names and their columns are fixed at start and are read without a lock.
// state, row_count, next_index and the rows belong to the table's lock; the accessors below take
// none themselves.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "memdb/memdb.h"
#include "tables/shared/lock.h"
#include "tables/shared/read_section.h"

inline constexpr size_t TARN_NAME_SIZE = 32;    // of tables and columns, with terminator
inline constexpr size_t INDEX_TEXT_SIZE = 256;  // of the text of a generated index

// Values of tarn_tbl::state.
inline constexpr int32_t TBL_UNCHANGED = 0;  // the files hold what the table holds
inline constexpr int32_t TBL_CHANGED = 1;    // rows changed since the last store
inline constexpr int32_t TBL_CLEARED = 2;    // emptied by an operator: the backup goes as well

inline constexpr int32_t TBL_HOLDS_PORTS = 1;  // tarn_tbl::flag

struct tarn_tbl {
  char table_name[TARN_NAME_SIZE];
  char file_name[256];  // below base_dir and base_backup_dir
  memdb_tbl *tbl;
  int32_t max_rows;
  int32_t row_count GUARDED_BY(lock);
  int32_t num_fields;
  int32_t state GUARDED_BY(lock);
  int32_t flag;
  uint32_t next_index GUARDED_BY(lock);
  char **field_name;  // num_fields names; one may be null where memory was short at start
  int32_t use_index;  // non-zero: column 0 is generated
  int32_t duplicated_data_check;
  char range[8];  // "dynamic" or any other word
  int32_t int_port_field;
  int32_t ext_port_field;
  char log_tag[16];  // empty: no audit lines
  tarn_lock *lock;
  int32_t being_reloaded;  // 1 while rows and files don't belong together; atomic
  int32_t open_stores;     // that haven't closed the main file; atomic
  // 1 where the main file isn't whole and must not become the backup.
  int32_t main_file_cut GUARDED_BY(lock);
  uint32_t refused_files;  // that loads have put aside or removed, since the start; atomic
};

struct tarn_mngt {
  int32_t num_table;
  char base_dir[256];
  char base_backup_dir[256];
  tarn_tbl *tables;        // num_table records
  read_sections sections;  // of all tables
};

// The one registry; null before mod_init and after mod_destroy.
extern tarn_mngt *tarn_tbl_mngt;

// Makes the registry, without tables. False if memory is short.
bool make_registry();

// Frees it and the tables' records, whose tables are gone; nothing if there is none.
void free_registry();

// All tables in schema order; empty as long as there is no registry.
std::span<tarn_tbl> all_tarn_tbls();

// The table of that name, or null, logged at ERR. A name of any length is compared whole.
tarn_tbl *get_tarn_tbl_by_name(const char *name);
tarn_tbl *get_tarn_tbl_by_name(std::string_view name);

// A column's name; empty where the start had no memory for it.
std::string_view column_name(const tarn_tbl *table, uint32_t col);

inline bool holds_ports(const tarn_tbl &table) { return table.flag == TBL_HOLDS_PORTS; }

// For the compiler's check of lock rules: the code that follows is the only process's, at the start
// before the host forks, or at the stop.
inline void alone_with(const tarn_tbl *table) COUNTS_AS_LOCKED(table->lock) {
  static_cast<void>(table);
}

// The engine's table for whoever changes its rows.
inline memdb_tbl *rows_to_change(tarn_tbl *table) NEEDS_LOCK(table->lock) { return table->tbl; }

// Accessors. The table isn't null.
int32_t get_tbl_state(const tarn_tbl *table) NEEDS_LOCK(table->lock);
void set_tbl_state(tarn_tbl *table, int32_t state) NEEDS_LOCK(table->lock);
int32_t get_tbl_row_count(const tarn_tbl *table) NEEDS_LOCK(table->lock);

// The count as it was a moment ago, for who takes no lock.
int32_t peek_tbl_row_count(const tarn_tbl *table);

// Adds a signed change; a count below zero is set to zero.
void set_tbl_row_count(tarn_tbl *table, int32_t change) NEEDS_LOCK(table->lock);
void reset_tbl_row_count(tarn_tbl *table) NEEDS_LOCK(table->lock);

// Draws the next index: the value before the call, and the counter goes on by one.
uint32_t get_tbl_index(tarn_tbl *table) NEEDS_LOCK(table->lock);
void set_tbl_index(tarn_tbl *table, uint32_t index) NEEDS_LOCK(table->lock);
void reset_tbl_index(tarn_tbl *table) NEEDS_LOCK(table->lock);

// The mark of a reload. It outlives a process that is killed, and so is to be set ahead of the
// first change and taken back behind the last.
bool is_being_reloaded(const tarn_tbl *table);
void set_being_reloaded(tarn_tbl *table, bool reloading);

// One more file that a load has refused, and how many that were.
void count_refused_file(tarn_tbl *table);
uint32_t refused_file_count(const tarn_tbl *table);

// A store at work on the table's main file, until the end of the scope. The table counts as
// unchanged when its lock is given back, and the last bytes go to the file after that: a process
// that ends in between leaves its store open.
class open_store {
 public:
  explicit open_store(tarn_tbl *table);
  ~open_store();
  open_store(const open_store &) = delete;
  open_store &operator=(const open_store &) = delete;

 private:
  tarn_tbl *table_;
};

// Makes the lock of every table. False if memory is short.
bool init_locks();

// Frees the locks of all tables.
void destroy_locks();

// Takes over what processes left that have ended amid their work: frees the table locks that they
// held, makes those tables' lists whole, takes out rows that an update was about to take out, and
// marks the tables as changed whose stores they left open. Only for a process that is alone.
void recover_tables();

// Frees names, rows and engine tables, each under its table's lock, then the rows that were kept
// for readers, and the locks. The records stay with the registry.
void destroy_tables();
