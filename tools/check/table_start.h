// What a start does with the files of a table: which it reads, what of them it puts away, and with
// which rows the table begins.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "tables/tarn_tbl.h"
#include "tools/check/forecast.h"
#include "tools/check/port_holders.h"
#include "tools/check/row_watch.h"
#include "tools/check/start_disk.h"
#include "tools/common/findings.h"

// Goes from table to table in the order of the schema, as a start does.
class table_starts {
 public:
  // Of each table named in best_matches so many look-ups for the best match are counted. It
  // outlives this.
  table_starts(const std::map<std::string, size_t> &best_matches, findings *out)
      : best_matches_(best_matches), out_(out) {}

  // Reads the table's files with the module's own code and changes neither. The rows go into the
  // table and into the memory that is counted.
  table_forecast start(tarn_tbl *table);

  // Bytes that the rows of all tables so far and what finds them take, those included that didn't
  // fit.
  const memory_forecast &row_memory() const { return row_memory_; }

  // What the start has put away so far.
  const std::vector<put_away_file> &files_put_away() const { return put_away_; }

  // works, or hangs at a table's file, or unknown since one of them can't be looked into.
  start_outcome outcome() const { return outcome_; }

 private:
  enum class reading { absent, loaded, refused, unknown };

  table_forecast start_with_files(tarn_tbl *table);
  reading read(tarn_tbl *table, const std::string &path, findings *out);
  reading watched_read(tarn_tbl *table, const std::string &path, const std::string &text,
                       findings *out);
  bool odd_entry(const std::string &path, reading *outcome, findings *out);
  void rehearse_backup(tarn_tbl *table, const std::string &path);
  void start_without_main(tarn_tbl *table, reading main, table_forecast *told);
  std::string put_away(const std::string &path);
  void left_ports(const std::string &path, const row_watch &watch, findings *out);
  size_t memory_for(const tarn_tbl *table, size_t rows) const;
  void count_memory(const tarn_tbl *table, size_t used_before);

  const std::map<std::string, size_t> &best_matches_;
  findings *out_;
  start_disk disk_;
  port_holders ports_;
  std::deque<std::string> paths_;  // that ports_ points to
  std::vector<put_away_file> put_away_;
  memory_forecast row_memory_;
  size_t rows_wanted_ = 0;  // by the present table, as far as they are known
  bool was_short_ = false;  // of memory, the present table
  start_outcome outcome_ = start_outcome::works;
};
