#include "tests/faults/world.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <stdexcept>

#include "tests/standin/counters.h"
#include "tests/standin/kemi.h"

namespace faults {
namespace {

using module_test::table;
using standin::pool;

constexpr char VERSION_LINE[] = "Version 1";
// Less than the process's mask lets new files have.
constexpr mode_t FILE_MODE = 0640;
constexpr int PORTS = 10;
// Rounds of giving all ports back, so that a port with that many holders shows.
constexpr int HOLDERS = 3;

struct map_bounds {
  const char *word;
  const char *parameter;
  int lowest;
};
constexpr map_bounds MAPS[] = {{"INT", "int", 21000},
                               {"EXT", "ext", 22000},
                               {"STATIC_INT", "static_int", 23000},
                               {"STATIC_EXT", "static_ext", 24000}};

std::vector<std::string> split(const std::string &text, char at) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, at);) out.push_back(part);
  if (!text.empty() && text.back() == at && at != '\n') out.emplace_back();
  return out;
}

std::string joined(const std::vector<std::string> &parts, const char *between) {
  std::string out;
  for (const std::string &part : parts) out += (out.empty() ? "" : between) + part;
  return out;
}

// The rows of a file, oldest first; false if a start can't take it.
bool read_rows(const table &t, const std::string &text, row_texts *rows) {
  const std::vector<std::string> lines = split(text, '\n');
  if (lines.empty() || lines[0] != VERSION_LINE) return false;
  for (size_t i = 1; i < lines.size(); i++) {
    if (lines[i].empty()) continue;
    if (split(lines[i], '|').size() != t.columns.size()) return false;
    if (lines[i].find_first_not_of('|') == std::string::npos) return false;
    rows->push_back(lines[i]);
  }
  return true;
}

}  // namespace

const std::vector<table> &world::tables() {
  static const std::vector<table> all = {
      {"phones",
       {{"user", 63, true}, {"contact", 255}, {"source", 45}},
       100,
       "PHONES",
       false,
       true},
      {"gateways", {{"grp", 15, true}, {"prefix", 15}, {"gateway", 63}, {"load", 5}}, 100},
      {"media",
       {{"id", 10, true},
        {"call", 127, true},
        {"leg", 7},
        {"party", 63},
        {"inner_port", 5},
        {"side", 7},
        {"outer_port", 5},
        {"static_type", 2},
        {"dynamic_type", 2}},
       5,
       "MEDIA",
       true,
       true,
       {{"dynamic", 4, 6}}},
      {"pairs", {{"call", 127, true}, {"leg"}, {"ext_port"}, {"int_port"}, {"codec"}}, 100},
      {"remotes",
       {{"id"},
        {"name"},
        {"location"},
        {"subnet", 45},
        {"mask", 45},
        {"trunk"},
        {"codecs"},
        {"transport"},
        {"max_calls"},
        {"prefix"},
        {"media"},
        {"note"},
        {"dn_flag"},
        {"subnet_flag"},
        {"from_flag"},
        {"ct_flag"}},
       100},
      {"remote_sub_dn_list", {{"dn", 63, true}, {"location_domain", 63}}, 100, "", false, true},
      {"full", {{"key", 31, true}, {"value"}}, 2},
  };
  return all;
}

const tables_rows &world::rows_at_first() {
  static const tables_rows rows = {
      {"phones", {"bob|sip:bob@10.0.0.7|10.0.0.7", "carol|sip:carol@10.0.0.8|10.0.0.8"}},
      {"gateways",
       {"local|2|sip:pbx.example.net|5", "world||sip:default.example.net|10",
        "world|39|sip:italy.example.net|20", "world|3906|sip:rome.example.net|35",
        "world|44|sip:london.example.net|80"}},
      {"media", {"1|call-1|a|alice|21001|WAN||0|0", "2|call-1|b|alice|21002|WAN|22002|0|0"}},
      {"pairs", {"call-1|a|500|600|PCMA", "call-2|a|502|602|OPUS"}},
      {"remotes",
       {"1|branch|north|10.1.0.0|255.255.0.0|t1|PCMA|udp|10|9|direct|by subnet|0|1|0|0",
        "2|travellers|south|||t2|OPUS|tls|5|0|relayed|by From user|1|0|1|0"}},
      {"remote_sub_dn_list", {"alice|south", "bob|north"}},
      {"full", {"one|1", "two|2"}},
  };
  return rows;
}

const tables_rows &world::rows_before_that() {
  static const tables_rows rows = [] {
    tables_rows out;
    for (const auto &[name, now] : rows_at_first()) out[name] = {now.front()};
    return out;
  }();
  return rows;
}

world::world(standin::host_kind host, row_count taken_for)
    : host_(host), taken_for_(taken_for), usual_mask_(umask(022)) {
  standin::reset();
  mkdir((directory_ / "main").c_str(), 0700);
  mkdir((directory_ / "backup").c_str(), 0700);
  for (const auto &[name, rows] : rows_at_first())
    module_test::write_file(path(name, false),
                            std::string(VERSION_LINE) + "\n" + joined(rows, "\n") + "\n");
  for (const auto &[name, rows] : rows_before_that())
    module_test::write_file(path(name, true),
                            std::string(VERSION_LINE) + "\n" + joined(rows, "\n") + "\n");
  for (const table &t : tables())
    for (const bool backup : {false, true}) chmod(path(t.name, backup).c_str(), FILE_MODE);
  module_test::write_file(
      directory_ / "schema.cfg",
      schema_text::schema(directory_ / "main/", directory_ / "backup/", tables()));
  module_test::write_file(directory_ / "ranges.txt", "INT 21006 21008\nEXT 22006 22007\n");
  standin::watch_files(directory_ / "");
}

world::~world() {
  if (module_ != nullptr) close();
  standin::watch_files("");
  standin::reset();
  umask(usual_mask_);
}

std::string world::path(const std::string &table, bool backup) const {
  const std::string file = module_test::table{table, {}}.file();
  return backup ? directory_ / ("backup/" + file + ".backup") : directory_ / ("main/" + file);
}

void world::open() {
  std::string error;
  standin::forget_kemi();
  standin::forget_counters();
  standin::set_host_kind(host_);
  standin::set_debug_level(module_test::ALERT_LEVEL - 1);
  module_ = standin::load_module(
      taken_for_ == row_count::many ? TARN_EARLY_MODULE_FILE : TARN_MODULE_FILE, &error);
  if (module_ == nullptr) throw std::runtime_error(error);
  module_->set_param("cfg_file_path", directory_ / "schema.cfg");
  module_->set_param("private_ranges_file_path", directory_ / "ranges.txt");
  for (const map_bounds &map : MAPS) {
    module_->set_param(std::string("min_") + map.parameter + "_port", map.lowest);
    module_->set_param(std::string("max_") + map.parameter + "_port", map.lowest + PORTS - 1);
  }
  standin::set_value(msg, "$rU", "bob");
  standin::set_value(msg, "$fU", "alice");
}

bool world::start() {
  started_ = module_->init() == 0;
  return started_;
}

void world::destroy() {
  module_->destroy();
  started_ = false;
}

void world::close(bool shared_blocks_may_stay) {
  prepared_ = standin::command();
  standin::check_blocks();
  for (const std::string &error : standin::memory_errors()) deviation("memory: " + error);
  for (const std::string &misuse : standin::misuses()) deviation("misuse: " + misuse);
  const std::string left = standin::leak_report(pool::shm);
  if (!left.empty() && !shared_blocks_may_stay) deviation("shared blocks left:\n" + left);
  if (standin::open_streams() != 0) deviation("streams left open");
  if (!module_->unload()) throw std::runtime_error("the image stays, and with it its data");
  module_.reset();
  standin::reset();
}

void world::write_call(const std::string &function, const std::vector<std::string> &texts) {
  prepared_ = module_->unfixed(function, texts);
  if (prepared_.row() == nullptr) throw std::logic_error("no function " + function);
}

bool world::run_fixups() {
  module_->run_fixups(&prepared_);
  return prepared_.accepted();
}

bool world::fix(const std::string &function, const std::vector<std::string> &texts) {
  write_call(function, texts);
  return run_fixups();
}

int world::call() { return module_->run(prepared_, msg); }

void world::look_up(const table &t, const row_texts &rows) {
  for (size_t c = 0; c < t.columns.size(); c++) {
    if (c > 0 && !t.columns[c].indexed) continue;  // all these are found by one walk of the list
    std::set<std::string> looked_up;
    for (const std::string &row : rows) {
      const std::string value = split(row, '|')[c];
      if (value.empty() || !looked_up.insert(value).second) continue;
      std::vector<std::string> query(t.columns.size(), "*");
      query[c] = value;
      std::vector<std::string> wanted;
      for (auto found = rows.rbegin(); found != rows.rend(); ++found)
        if (split(*found, '|')[c] == value) wanted.push_back(*found);
      std::vector<std::string> got =
          standin::rpc_call("tarn_memdb.select", {t.name + "," + joined(query, "|")}).lines;
      if (!got.empty()) got.erase(got.begin());
      if (got != wanted)
        deviation("rows of " + t.name + " with " + t.columns[c].name + " " + value + " are " +
                  joined(got, ", ") + " instead of " + joined(wanted, ", "));
    }
  }
}

// The gateway of the longest prefix, the newest of those, in each group for a number behind each
// prefix of it. The functions' fix-ups have the module make look-ups, where it hasn't.
void world::look_up_prefixes(const row_texts &gateways) {
  std::map<std::string, std::vector<std::vector<std::string>>> groups;
  for (const std::string &row : gateways) {
    const std::vector<std::string> fields = split(row, '|');
    groups[fields[0]].insert(groups[fields[0]].begin(), fields);
  }
  fix("tarn_memdb_nl_select_best_match",
      {"gateways,$var(grp)|$var(number)|*|*", "||$avp(found)", "1"});
  for (const auto &[name, members] : groups)
    for (const std::vector<std::string> &each : members) {
      const std::string number = each[1] + "7";
      const std::vector<std::string> *best = nullptr;
      for (const std::vector<std::string> &other : members)
        if (number.rfind(other[1], 0) == 0 &&
            (best == nullptr || other[1].size() > (*best)[1].size()))
          best = &other;
      standin::set_var("grp", name);
      standin::set_var("number", number);
      standin::clear_avps();
      const int result = call();
      const std::vector<std::string> found = module_test::avp_texts("found");
      if (result != 1 || found != std::vector<std::string>{(*best)[2]})
        deviation("the gateway of " + name + " for " + number + " is " + joined(found, ", ") +
                  " instead of " + (*best)[2]);
    }
}

tables_rows world::rows() {
  tables_rows out;
  for (const table &t : tables()) {
    const standin::rpc_reply shown = standin::rpc_call("tarn_memdb.show", {t.name});
    row_texts &rows = out[t.name];
    for (const standin::rpc_container &each : shown.containers)
      rows.insert(rows.begin(), joined(each.texts, ""));
    if (!shown.faults.empty() || shown.lines.size() < 2 ||
        shown.lines[1] != "Row count: " + std::to_string(rows.size()))
      deviation("show of " + t.name + " with " + std::to_string(rows.size()) +
                " rows says: " + joined(shown.lines, " / "));
    look_up(t, rows);
  }
  if (taken_for_ == row_count::many) look_up_prefixes(out.at("gateways"));
  return out;
}

// Which ports are free, and how many holders each of the others has.
std::string world::ports_of(const std::string &map) {
  std::string out = map + ":";
  const auto lowest = std::find_if(std::begin(MAPS), std::end(MAPS), [&](const map_bounds &each) {
                        return map == each.word;
                      })->lowest;
  for (int round = 0; round <= HOLDERS; round++) {
    std::set<int> taken;
    fix("tarn_memdb_get_port", {map});
    for (int port = call(); port > 0; port = call())
      if (!taken.insert(port).second) deviation("a port is given out twice");
    for (const int port : taken) out += " " + std::to_string(port);
    out += ";";
    fix("tarn_memdb_free_port", {map, "$var(port)"});
    for (int port = lowest; port < lowest + PORTS; port++) {
      standin::set_var("port", port);
      call();
    }
  }
  return out + "\n";
}

std::string world::state() {
  std::string out;
  for (const auto &[name, texts] : rows()) {
    out += name + "\n" + joined(texts, "\n") + "\n";
    for (const std::string &line : standin::rpc_call("tarn_memdb.show_tbl_info", {name}).lines)
      if (line.rfind("State:", 0) != 0) out += line + "\n";
  }
  for (const map_bounds &map : MAPS) out += ports_of(map.word);
  return out;
}

std::map<std::string, std::string> world::files() const {
  std::map<std::string, std::string> out;
  for (const table &t : tables())
    for (const bool backup : {false, true})
      for (const char *ending : {"", ".refused"}) {
        const std::string file = path(t.name, backup) + ending;
        if (module_test::file_exists(file))
          out[t.name + (backup ? " backup" : "") + (*ending != '\0' ? " refused" : "")] =
              module_test::read_file(file);
      }
  return out;
}

std::vector<std::string> world::files_open_to_others() const {
  std::vector<std::string> out;
  for (const table &t : tables())
    for (const bool backup : {false, true})
      for (const char *ending : {"", ".refused"}) {
        const std::string file = path(t.name, backup) + ending;
        struct stat status = {};
        if (stat(file.c_str(), &status) == 0 && (status.st_mode & 0777 & ~FILE_MODE) != 0)
          out.push_back(file);
      }
  return out;
}

void world::spoil(const std::string &table, bool backup) {
  const std::string file = path(table, backup);
  module_test::write_file(file, module_test::read_file(file) + "no row of this table\n");
}

void world::lengthen(const std::string &table, const row_texts &rows) {
  const std::string file = path(table, false);
  module_test::write_file(file, module_test::read_file(file) + joined(rows, "\n") + "\n");
}

tables_rows world::rows_in_files() const {
  tables_rows out;
  for (const table &t : tables()) {
    row_texts rows;
    if (!read_rows(t, module_test::read_file(path(t.name, false)), &rows)) {
      rows.clear();
      if (!read_rows(t, module_test::read_file(path(t.name, true)), &rows)) rows.clear();
    }
    out[t.name] = rows;
  }
  return out;
}

}  // namespace faults
