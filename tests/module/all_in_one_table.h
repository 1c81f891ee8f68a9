// A table that every select can search, and queries of it.
#pragma once

#include <string>

#include "tests/module/fixture.h"

namespace module_test {

// One table that all selects can search: a group, a prefix that is also a number, a pair of ports,
// an id, and the columns of the subscribers' table.
inline table all_in_one(int max_rows = 1000, const std::string &name = "t") {
  table out{name, {{"grp", 31, true}, {"num"}, {"ext"}, {"int"}, {"mask"}, {"id"}}, max_rows};
  for (size_t i = 6; i < 16; i++) out.columns.push_back({"c" + std::to_string(i)});
  return out;
}

// A line of that table. Of a row that a source address matches the pair's second port is the
// subnet.
inline std::string line(const std::string &num, const std::string &ext, const std::string &in,
                        const std::string &id) {
  return "g|" + num + "|" + ext + "|" + in + "|255.255.255.255|" + id + "|||||||0|1|0|0";
}

// A query of the table by group, main column and, for the pair of ports, the external one.
inline std::string query(const std::string &num, const std::string &tail = ",",
                         const std::string &ext = "*") {
  return "t,g|" + num + "|" + ext + repeated("|*", 13) + tail;
}
inline std::string pair_query(const std::string &tail = ",") {
  return "t,g|*|500" + repeated("|*", 12) + tail;
}

// The AVP that takes the ids, in a list by position and in one without the second port's place.
inline const std::string ID = "|||||$avp(id)";
inline const std::string PAIR_ID = "||||$avp(id)";

}  // namespace module_test
