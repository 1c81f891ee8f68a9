// The walk through a private range file.
#include "tools/check/range_check.h"

#include <map>
#include <set>
#include <sstream>

#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "tools/common/visible_text.h"

namespace {

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

  void range(const std::string &text) {
    if (text.find('\0') != text.npos) warn("holds a zero byte: what stands behind it is lost");
    if (!line_.scan(text.c_str())) {
      empty_line();
      return;
    }
    const port_m *const named = port_map_by_word(line_.word);
    // The word itself, which may be longer than what is kept of it.
    std::string word;
    std::istringstream(text.c_str()) >> word;
    if (named != nullptr)
      map_ = named;
    else if (map_ == nullptr)
      warn(in_quotes(word) + " names no port map, nor did a line before: the line is skipped");
    else
      warn(in_quotes(word) + " names no port map: the range goes to the map of the line before");
    rest();
    if (map_ != nullptr) ports();
  }

  void empty_line() {
    if (map_ != nullptr)
      warn("is empty: the map of the line before gets a range without ports");
    else
      warn("is empty and is skipped: no port map was named yet");
  }

  // What the scan left of the line.
  void rest() {
    std::string item;
    if (std::istringstream(line_.rest) >> item)
      warn(in_quotes(item) +
           (line_.count == PRIVATE_RANGE_PORTS
                ? " and what follows is passed over: a range has ten ports at most"
                : " is no port: it and what follows is passed over"));
    if (line_.count == 0) warn("names no port: the range is empty");
    if (line_.count == 1) warn("names a base port alone: the range has no port to give out");
  }

  void ports() {
    std::set<int> in_range;
    for (int i = 0; i < line_.count; i++) {
      const range_port port = judge_range_port(map_, line_, i);
      if (port.ends_range) warn("-1 ends the range: what follows isn't given out");
      if (port.is_marked)
        marked(port.number, &in_range);
      else
        warn("port " + std::to_string(port.number) + " lies outside its map, " +
             std::to_string(map_->min_port) + " to " + std::to_string(map_->max_port));
    }
    if (line_.count > 0 && !bases_.emplace(map_, line_.numbers[0]).second)
      warn("the base port " + std::to_string(line_.numbers[0]) +
           " is that of an earlier range: this range is never found");
  }

  void marked(int32_t number, std::set<int> *in_range) {
    const std::string port = "port " + std::to_string(number);
    if (!in_range->insert(number).second) warn(port + " stands in this range twice");
    const auto [first, is_new] = seen_.emplace(std::pair(map_, number), number_);
    if (!is_new && first->second != number_)
      warn(port + " stands in the range of line " + std::to_string(first->second) + " as well");
    if (number == map_->min_port)
      warn(port + " is the map's lowest: ordinary allocation hands it out first, private or not");
  }

  std::string path_;
  findings *out_;
  range_line line_;
  size_t number_ = 0;
  const port_m *map_ = nullptr;
  std::map<std::pair<const port_m *, int>, size_t> seen_;
  std::set<std::pair<const port_m *, int>> bases_;
};

}  // namespace

void check_private_ranges(const std::string &path, const std::string &text, findings *out) {
  range_walk(path, out).run(text);
}
