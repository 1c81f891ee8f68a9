// The column lines of one table of a schema.
#pragma once

#include <string>
#include <vector>

#include "tables/tarn_tbl.h"
#include "tools/common/findings.h"
#include "tools/common/schema_keys.h"

struct declared_column {
  std::string name;
  int64_t len;
  size_t line;
};

// Reads the table's column lines and tells what is wrong with each. The record has the keys that
// stand ahead of them.
std::vector<declared_column> check_columns(const tarn_tbl &table, const std::string &path,
                                           schema_keys *keys, findings *out);

// Of a table that holds ports: tells of columns that are missing, or too short for what they are to
// hold. line is that of the table. The port maps have to stand.
void check_port_columns(const tarn_tbl &table, const std::vector<declared_column> &columns,
                        const std::string &path, size_t line, findings *out);
