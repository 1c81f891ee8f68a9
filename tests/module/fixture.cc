// Opening and closing of the module, and looks from outside.
#include "tests/module/fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace module_test {
namespace {

// A test that waits for a lock that nobody gives back ends here.
constexpr unsigned SECONDS_FOR_A_TEST = 120;

constexpr char LOOK_AVP[] = "look_";
constexpr char LOOK_VAR[] = "look_list";

std::string look_avp(size_t column) { return LOOK_AVP + std::to_string(column); }

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> out;
  size_t from = 0;
  while (from < text.size()) {
    const size_t end = std::min(text.find('\n', from), text.size());
    out.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return out;
}

std::string escaped(const std::string &text) {
  std::string out;
  for (const char c : text) {
    if (std::string(",|\\*").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

std::string joined(const texts &parts, const std::string &between) {
  std::string out;
  for (size_t i = 0; i < parts.size(); i++) out += (i > 0 ? between : "") + parts[i];
  return out;
}

std::string repeated(const std::string &text, size_t n) { return joined(texts(n, text), ""); }

texts avp_texts(const std::string &name) {
  texts out;
  for (const value &held : standin::avp(name)) out.push_back(held.text);
  return out;
}

table with(table changed, int max_rows, const std::string &log_tag, bool use_index,
           bool check_duplicates) {
  changed.max_rows = max_rows;
  changed.log_tag = log_tag;
  changed.use_index = use_index;
  changed.check_duplicates = check_duplicates;
  return changed;
}

table port_table(const std::string &name, const std::string &range) {
  return {name,
          {{"id"},
           {"k1", 31, true},
           {"k2"},
           {"k3"},
           {"c4"},
           {"location"},
           {"c6"},
           {"static_type"},
           {"dynamic_type"},
           {"int_port"},
           {"ext_port"}},
          100,
          "",
          false,
          false,
          {{range, 9, 10}}};
}

const char *level_name(int level) {
  static const char *const names[] = {"alert", "bug",    "crit", "?",  "err",
                                      "warn",  "notice", "info", "dbg"};
  return names[level - ALERT_LEVEL];
}

std::ostream &operator<<(std::ostream &out, const message &shown) {
  return out << level_name(shown.level) << "(" << testing::PrintToString(shown.text) << ")";
}

std::vector<message> messages(int least_grave) {
  std::vector<message> out;
  for (const standin::log_record &record : standin::logs())
    if (record.level <= least_grave) out.push_back({record.level, record.text});
  return out;
}

size_t module_blocks(pool which) { return standin::live_blocks(which, "tarn_memdb").size(); }

// The tests' own file access goes past the C library's streams, whose operations are counted and
// failed on the module's behalf.
std::string read_file(const std::string &path) {
  std::string out;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return out;
  char part[4096];
  for (ssize_t got = read(file, part, sizeof(part)); got > 0; got = read(file, part, sizeof(part)))
    out.append(part, static_cast<size_t>(got));
  close(file);
  return out;
}

bool file_exists(const std::string &path) { return std::filesystem::exists(path); }

void write_file(const std::string &path, const std::string &text) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool written =
      file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (file >= 0) close(file);
  if (!written) throw std::runtime_error("can't write " + path);
}

temporary_directory::temporary_directory() {
  path_ = (std::filesystem::temp_directory_path() / "tarn_module_XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

temporary_directory::~temporary_directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

quiet::quiet() : level_(get_debug_level("test", 4)) { standin::set_debug_level(ALERT_LEVEL - 1); }
quiet::~quiet() { standin::set_debug_level(level_); }

void ModuleTest::SetUp() {
  alarm(SECONDS_FOR_A_TEST);
  standin::reset();
  standin::watch_files(directory_ / "");
  ASSERT_EQ(mkdir(base_directory().c_str(), 0700), 0);
  ASSERT_EQ(mkdir(backup_directory().c_str(), 0700), 0);
  load();
}

void ModuleTest::TearDown() {
  if (module_ != nullptr) unload();
  standin::watch_files("");
  standin::reset();
  alarm(0);
}

void ModuleTest::load() {
  std::string error;
  module_ = standin::load_module(TARN_MODULE_FILE, &error);
  ASSERT_NE(module_, nullptr) << error;
}

void ModuleTest::unload() {
  standin::stop_failing();
  standin::stop_failing_calls();
  standin::stop_failing_files();
  if (initialised_) destroy();
  looks_.clear();
  standin::check_blocks();
  EXPECT_THAT(standin::memory_errors(), testing::IsEmpty());
  EXPECT_THAT(standin::misuses(), testing::IsEmpty());
  if (!shared_blocks_may_stay) {
    EXPECT_EQ(standin::leak_report(pool::shm), "");
  }
  EXPECT_EQ(standin::open_streams(), 0);
  EXPECT_TRUE(module_->unload()) << "the next test would meet this one's static data";
  module_.reset();
  standin::reset();
}

void ModuleTest::configure(const std::vector<table> &tables) {
  tables_ = tables;
  write_file(schema_file(), schema_text::schema(base_directory(), backup_directory(), tables));
  ASSERT_TRUE(module_->set_param("cfg_file_path", schema_file()));
  ASSERT_TRUE(module_->set_param("private_ranges_file_path", ranges_file()));
}

void ModuleTest::start_with_small_maps(const std::vector<table> &tables) {
  const std::pair<const char *, int> lower_bounds[] = {
      {"int", 100}, {"ext", 200}, {"static_int", 300}, {"static_ext", 400}};
  for (const auto &[name, lowest] : lower_bounds) {
    ASSERT_TRUE(module_->set_param(std::string("min_") + name + "_port", lowest));
    ASSERT_TRUE(module_->set_param(std::string("max_") + name + "_port", lowest + 9));
  }
  start(tables);
}

int ModuleTest::init() {
  initialised_ = true;
  return module_->init();
}

void ModuleTest::destroy() {
  initialised_ = false;
  module_->destroy();
}

void ModuleTest::start(const std::vector<table> &tables) {
  configure(tables);
  start_configured();
}

void ModuleTest::start_configured() {
  ASSERT_EQ(init(), 0) << standin::log_dump();
  standin::stop_failing();
  prepare_looks();
  forget();
}

void ModuleTest::start_with(const std::vector<table> &tables, const contents &rows) {
  for (const auto &[name, lines] : rows) write_file(main_file(name), table_text(lines));
  start(tables);
  for (const auto &[name, lines] : rows)
    ASSERT_EQ(row_count(name), static_cast<int>(lines.size())) << name;
  forget();
}

void ModuleTest::start_filled(const table &one, const texts &rows) {
  start_with({one}, {{one.name, rows}});
}

void ModuleTest::restart() {
  const standin::host_kind kind = standin::get_host_kind();
  unload();
  standin::set_host_kind(kind);
  load();
  start(std::vector<table>(tables_));
}

void ModuleTest::forget() {
  standin::clear_logs();
  standin::reset_calls();
  standin::stop_failing();
  standin::reset_allocation_count();
}

standin::command ModuleTest::fixup(const std::string &function, const texts &parameters) {
  return module_->fixup(function, parameters);
}

int ModuleTest::call(const standin::command &prepared) {
  const uint64_t before = standin::last_serial();
  const int result = module_->run(prepared, msg);
  EXPECT_EQ(standin::leak_report(pool::pkg, before), "") << "left by " << prepared.row()->name;
  EXPECT_EQ(standin::open_streams(), 0) << "left by " << prepared.row()->name;
  return result;
}

int ModuleTest::run(const std::string &function, const texts &parameters) {
  return call(fixup(function, parameters));
}

standin::rpc_reply ModuleTest::rpc(const std::string &name, const std::vector<value> &arguments) {
  const uint64_t before = standin::last_serial();
  standin::rpc_reply reply = standin::rpc_call(name, arguments);
  EXPECT_EQ(standin::leak_report(pool::pkg, before), "") << "left by " << name;
  EXPECT_EQ(standin::open_streams(), 0) << "left by " << name;
  return reply;
}

int ModuleTest::fixup_null(const std::string &function, int parameters, int number) {
  const cmd_export_t *const exported = module_->find(function, parameters);
  if (exported == nullptr) throw std::logic_error("no function " + function);
  standin::parameter_slot slot("");
  void *const text = *slot.address();
  *slot.address() = nullptr;
  const int result = exported->fixup(slot.address(), number);
  EXPECT_EQ(slot.get(), nullptr);
  *slot.address() = text;
  return result;
}

void ModuleTest::prepare_looks() {
  const quiet silence;
  looks_.clear();
  for (const table &t : tables_) {
    std::string query = t.name + ",";
    std::string names;
    for (size_t i = 0; i < t.columns.size(); i++) {
      query += i > 0 ? "|*" : "*";
      names += (i > 0 ? "|$avp(" : "$avp(") + look_avp(i) + ")";
    }
    looks_.push_back({t.name, t.columns.size(),
                      module_->fixup("tarn_memdb_nl_select", {query + ",2147483647", names}),
                      module_->fixup("tarn_memdb_nl_select",
                                     {t.name + ",$var(" + LOOK_VAR + ")", "$avp(look_0)"}),
                      module_->fixup("tarn_memdb_row_count", {t.name, "$avp(look_0)"})});
    if (!looks_.back().all.accepted() || !looks_.back().by_list.accepted() ||
        !looks_.back().count.accepted())
      throw std::logic_error("no look at table " + t.name);
  }
}

const ModuleTest::look &ModuleTest::look_at(const std::string &table_name) const {
  for (const look &known : looks_)
    if (known.table_name == table_name) return known;
  throw std::logic_error("no table " + table_name);
}

row_list ModuleTest::rows(const std::string &table_name) {
  const look &known = look_at(table_name);
  const quiet silence;
  call(known.all);
  row_list out;
  for (size_t i = 0; i < known.columns; i++) {
    const texts fields = avp_texts(look_avp(i));
    out.resize(fields.size());
    for (size_t r = 0; r < fields.size(); r++) out[r].push_back(fields[r]);
    standin::set_value(msg, "$avp(" + look_avp(i) + ")", value());
  }
  return out;
}

int ModuleTest::row_count(const std::string &table_name) {
  const quiet silence;
  call(look_at(table_name).count);
  const std::vector<value> counted = standin::avp(look_avp(0));
  standin::set_value(msg, "$avp(" + look_avp(0) + ")", value());
  return counted.empty() ? -1 : std::stoi(counted[0].text);
}

void ModuleTest::expect_rows(const std::string &table_name, const row_list &expected) {
  EXPECT_EQ(rows(table_name), expected);
  EXPECT_EQ(row_count(table_name), static_cast<int>(expected.size()));
  const look &known = look_at(table_name);
  const quiet silence;
  for (const row &wanted : expected) {
    for (size_t key = 0; key < known.columns; key++) {
      std::string list;
      for (size_t i = 0; i < known.columns; i++)
        list += (i > 0 ? "|" : "") + (i == key ? escaped(wanted[i]) : std::string("*"));
      standin::set_var(LOOK_VAR, list);
      EXPECT_EQ(call(known.by_list), 1) << list;
      standin::set_value(msg, "$avp(" + look_avp(0) + ")", value());
    }
  }
}

std::string ModuleTest::main_file(const std::string &table_name) const {
  return base_directory() + table{table_name, {}}.file();
}

std::string ModuleTest::backup_file(const std::string &table_name) const {
  return backup_directory() + table{table_name, {}}.file() + ".backup";
}

std::string ModuleTest::table_text(const texts &rows) {
  std::string out = "Version 1\n";
  for (const std::string &line : rows) out += line + "\n";
  return out;
}

texts ModuleTest::stored(const std::string &table_name) {
  const quiet silence;
  standin::tick();
  std::vector<std::string> lines = lines_of(read_file(main_file(table_name)));
  if (lines.empty()) return lines;
  EXPECT_EQ(lines[0], "Version 1");
  return {lines.begin() + 1, lines.end()};
}

bool ModuleTest::store_writes(const std::string &table_name) {
  const quiet silence;
  const std::string path = main_file(table_name);
  const size_t from = standin::file_history().size();
  standin::tick();
  const std::vector<std::string> history = standin::file_history();
  return std::find(history.begin() + static_cast<long>(from), history.end(), "fopen " + path) !=
         history.end();
}

}  // namespace module_test
