// The walk through a private range file.
#include "tools/check/range_check.h"

#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "tools/check/whole_file.h"

namespace {

std::string quoted(const std::string &text) { return "'" + text + "'"; }

class range_walk {
 public:
  range_walk(std::string path, findings *out) : path_(std::move(path)), out_(out) {}

  void run(const std::string &text) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
      number_++;
      range(line);
    }
  }

 private:
  void warn(const std::string &text) { out_->warn(path_, number_, text); }

  void range(const std::string &line) {
    char word[32] = "";
    int port[PRIVATE_RANGE_PORTS + 1];
    const int items =
        vread(line.c_str(), "%31s %d %d %d %d %d %d %d %d %d %d", word, &port[0], &port[1],
              &port[2], &port[3], &port[4], &port[5], &port[6], &port[7], &port[8], &port[9]);
    if (items < 1) {
      empty_line();
      return;
    }
    const port_m *const named = port_map_by_word(word);
    if (named != nullptr)
      map_ = named;
    else if (map_ == nullptr)
      warn(quoted(word) + " names no port map, nor did a line before: the line is skipped");
    else
      warn(quoted(word) + " names no port map: the range goes to the map of the line before");
    rest(line, items - 1);
    if (map_ != nullptr) ports(port, items - 1);
  }

  void empty_line() {
    if (map_ != nullptr)
      warn("is empty: the map of the line before gets a range without ports");
    else
      warn("is empty and is skipped: no port map was named yet");
  }

  // What the scan left of the line.
  void rest(const std::string &line, int count) {
    std::istringstream items(line);
    std::string item;
    for (int i = 0; i <= count; i++) items >> item;
    if (items >> item)
      warn(quoted(item) + (count == PRIVATE_RANGE_PORTS
                               ? " and what follows is passed over: a range has ten ports at most"
                               : " is no port: it and what follows is passed over"));
    if (count == 0) warn("names no port: the range is empty");
    if (count == 1) warn("names a base port alone: the range has no port to give out");
  }

  void ports(const int *port, int count) {
    std::set<int> in_range;
    for (int i = 0; i < count; i++) {
      const std::string shown = std::to_string(port[i]);
      if (port[i] == NO_PORT && i > 0) warn("-1 ends the range: what follows isn't given out");
      if (!is_port_in_range(map_, port[i])) {
        warn("port " + shown + " lies outside its map, " + std::to_string(map_->min_port) + " to " +
             std::to_string(map_->max_port));
        continue;
      }
      if (!in_range.insert(port[i]).second) warn("port " + shown + " stands in this range twice");
      const auto [first, is_new] = seen_.emplace(std::pair(map_, port[i]), number_);
      if (!is_new && first->second != number_)
        warn("port " + shown + " stands in the range of line " + std::to_string(first->second) +
             " as well");
      if (port[i] == map_->min_port)
        warn("port " + shown +
             " is the map's lowest: ordinary allocation hands it out first, "
             "private or not");
    }
    if (count > 0 && !bases_.emplace(map_, port[0]).second)
      warn("the base port " + std::to_string(port[0]) +
           " is that of an earlier range: this range is never found");
  }

  std::string path_;
  findings *out_;
  size_t number_ = 0;
  const port_m *map_ = nullptr;
  std::map<std::pair<const port_m *, int>, size_t> seen_;
  std::set<std::pair<const port_m *, int>> bases_;
};

}  // namespace

bool check_private_ranges(const std::string &path, findings *out) {
  const std::optional<std::string> text = whole_file(path);
  if (!text) return false;
  range_walk(path, out).run(*text);
  return true;
}
