// The one builder of schemas for C++ tests and measurements: composes the text of a schema file
// from records, with its keys in the order that the module reads them in.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace schema_text {

struct column {
  std::string name;
  long length = 31;
  bool indexed = false;
};

// Of a table whose rows hold ports: its kind of range, and the columns of the ports.
struct port_fields {
  std::string range;
  int internal;
  int external;
};

struct table {
  std::string name;
  std::vector<column> columns;
  int max_rows = 100;
  std::string log_tag = {};  // empty: the key is left out
  bool use_index = false;
  bool check_duplicates = false;
  std::vector<port_fields> ports = {};  // one, or none
  std::optional<int> flag = {};         // none: 1 with ports, 0 without
  std::string file_name = {};           // empty: the name with .txt

  std::string file() const { return file_name.empty() ? name + ".txt" : file_name; }
};

// The lines of one table.
inline std::string table_lines(const table &t) {
  std::string out;
  const auto line = [&out](const char *key, const std::string &content) {
    out.append(key).append("=").append(content).append("\n");
  };
  const auto number = [&line](const char *key, long content) {
    line(key, std::to_string(content));
  };
  const int flag = t.flag.value_or(t.ports.empty() ? 0 : 1);
  line("TABLE_NAME", t.name);
  number("FLAG", flag);
  if (flag == 1) {
    line("RANGE", t.ports.at(0).range);
    number("INT_PORT_FIELD", t.ports.at(0).internal);
    number("EXT_PORT_FIELD", t.ports.at(0).external);
  }
  if (!t.log_tag.empty()) line("LOG_TAG", t.log_tag);
  number("USE_INDEX", t.use_index);
  number("DUPLICATED_DATA_CHECK", t.check_duplicates);
  number("MAX_ROWS", t.max_rows);
  number("NUM_FIELDS", static_cast<long>(t.columns.size()));
  for (const column &c : t.columns)
    out += c.name + " " + std::to_string(c.length) + (c.indexed ? " 1\n" : " 0\n");
  line("FILE_NAME", t.file());
  return out;
}

// The two lines ahead of the tables. A directory ends in a slash, or begins the files' names.
inline std::string head(const std::string &base_dir, const std::string &backup_dir) {
  return "BASE_DIR=" + base_dir + "\nBASE_BACKUP_DIR=" + backup_dir + "\n";
}

// From the number of tables on.
template <typename Tables>
std::string tables(const Tables &all) {
  std::string out = "NUM_TABLE=" + std::to_string(all.size()) + "\n";
  for (const table &each : all) out += table_lines(each);
  return out;
}

// A whole schema.
template <typename Tables>
std::string schema(const std::string &base_dir, const std::string &backup_dir, const Tables &all) {
  return head(base_dir, backup_dir) + tables(all);
}

}  // namespace schema_text
