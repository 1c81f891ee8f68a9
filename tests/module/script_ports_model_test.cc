// The port functions, and the rows that hold ports, beside a plain model of them: random calls on
// small maps, results, allocation pointers and every byte compared after each.
#include <algorithm>
#include <array>
#include <random>

#include "tests/module/shared_view.h"

namespace module_test {
namespace {

constexpr int STEPS = 40;
const std::array<std::string, 4> WORDS = {"INT", "EXT", "STATIC_INT", "STATIC_EXT"};

// One map in plain values.
class model_map {
 public:
  struct port {
    bool used = false;
    bool set_aside = false;
    int holders = 0;  // modulo 64
  };

  model_map() = default;
  model_map(int min, int size) : min_(min), next_(min), ports_(static_cast<size_t>(size)) {}

  void add_range(const std::vector<int> &ports) {
    ranges_.push_back(ports);
    for (const int number : ports) at(number).set_aside = true;
  }

  bool has(int number) const { return number >= min_ && number <= max(); }
  int max() const { return min_ + static_cast<int>(ports_.size()) - 1; }
  int min() const { return min_; }
  int next() const { return next_; }
  const std::vector<std::vector<int>> &ranges() const { return ranges_; }

  int set(int number) {
    if (!has(number)) return -2;
    at(number).used = true;
    if (number == next_) move_on();
    return 1;
  }

  // One more row on the port.
  void hold(int number) {
    if (set(number) == 1) at(number).holders = (at(number).holders + 1) % 64;
  }

  // One holder less. From 32 on holders count as fewer than none, and none is taken off.
  int release(int number) {
    if (!has(number)) return -2;
    port &p = at(number);
    if (p.used && p.holders >= 1 && p.holders <= 31) p.holders--;
    if (p.holders == 0) {
      p.used = false;
      if (next_ == -1 && !is_private(number)) next_ = number;
    }
    return 0;
  }

  int take_next() {
    const int number = next_;
    if (number != -1) set(number);
    return number;
  }

  // What the range of that base gives out; taken, too.
  int take_from(int base) {
    if (ranges_.empty()) return 0;
    const auto range = std::find_if(ranges_.begin(), ranges_.end(), [base](const auto &ports) {
      return !ports.empty() && ports[0] == base;
    });
    if (range == ranges_.end()) return -1;
    for (size_t i = 1; i < range->size(); i++) {
      if (at((*range)[i]).used) continue;
      set((*range)[i]);
      return (*range)[i];
    }
    return -1;
  }

  void clear() {
    ports_.assign(ports_.size(), port());
    next_ = min_;
  }

  std::vector<int> bytes() const {
    std::vector<int> out;
    for (const port &p : ports_)
      out.push_back((p.used ? 0x80 : 0) + (p.set_aside ? 0x40 : 0) + p.holders);
    return out;
  }

 private:
  port &at(int number) { return ports_[static_cast<size_t>(number - min_)]; }
  bool is_private(int number) { return !ranges_.empty() && at(number).set_aside; }
  bool is_open(int number) { return has(number) && !at(number).used && !is_private(number); }

  void move_on() {
    if (is_open(next_ + 1)) {
      next_++;
      return;
    }
    next_ = -1;
    for (int number = min_; number <= max() && next_ == -1; number++)
      if (is_open(number)) next_ = number;
  }

  int min_ = 0;
  int next_ = 0;
  std::vector<port> ports_;
  std::vector<std::vector<int>> ranges_;
};

// A row of the table that holds ports; what matters of it.
struct model_row {
  int id;
  bool internal;
  std::string port;
};

class PortModelTest : public SharedViewTest {
 protected:
  // Maps, ranges and a table, as random as the seed says.
  void start_random(uint32_t seed) {
    random_.seed(seed);
    rows_.clear();
    next_id_ = 1;
    dynamic_ = one_in(2);
    std::string file;
    for (size_t i = 0; i < WORDS.size(); i++) {
      // The internal maps overlap in their numbers, as those of a site do.
      const int min = i % 2 == 0 ? 100 : 200;
      const int size = 1 + below(8);
      maps_[i] = model_map(min, size);
      std::string name = WORDS[i];
      for (char &c : name) c = static_cast<char>(tolower(c));
      ASSERT_TRUE(module().set_param("min_" + name + "_port", min));
      ASSERT_TRUE(module().set_param("max_" + name + "_port", min + size - 1));
      for (int ranges = below(3); ranges > 0; ranges--) {
        std::vector<int> ports;
        std::string line = WORDS[i];
        for (int n = below(5); n > 0; n--) {
          ports.push_back(min + below(size));
          line += " " + std::to_string(ports.back());
        }
        maps_[i].add_range(ports);
        file += line + "\n";
      }
    }
    write_file(ranges_file(), file);
    table holder{"p", {}};
    for (const char *name : {"id", "k1", "k2", "k3", "in", "loc", "ex", "st", "dt"})
      holder.columns.push_back({name});
    holder.ports = {{dynamic_ ? "dynamic" : "static", 4, 6}};
    start({holder});
    standin::set_debug_level(ERR_LEVEL);
    prepare_calls();
  }

  void step() {
    switch (below(16)) {
      case 0:
      case 1:
      case 2:
        get_one();
        break;
      case 3:
        get_into();
        break;
      case 4:
      case 5:
        from_range();
        break;
      case 6:
      case 7:
        set();
        break;
      case 8:
      case 9:
      case 10:
        free();
        break;
      case 11:
      case 12:
        insert();
        break;
      case 13:
        remove();
        break;
      case 14:
        update();
        break;
      default:
        if (one_in(6)) clear_all();
    }
  }

  void expect_equal_maps() {
    for (size_t i = 0; i < WORDS.size(); i++) {
      ASSERT_EQ(view().map(WORDS[i]).next_free_port, maps_[i].next()) << WORDS[i];
      ASSERT_EQ(view().bytes(WORDS[i]), maps_[i].bytes()) << WORDS[i];
    }
    ASSERT_EQ(view().table("p").row_count, static_cast<int>(rows_.size()));
  }

  int below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  bool one_in(int n) { return below(n) == 0; }

 private:
  void prepare_calls() {
    const auto prepare = [this](const std::string &name, const texts &parameters) {
      prepared_[name + std::to_string(parameters.size())] = fixup(name, parameters);
    };
    prepare("tarn_memdb_get_port", {"$var(map)"});
    prepare("tarn_memdb_get_port", {"$var(map)", "$avp(port)"});
    prepare("tarn_memdb_get_port_from_range", {"$var(map)", "$var(port)"});
    prepare("tarn_memdb_set_port", {"$var(port)", "$var(map)"});
    prepare("tarn_memdb_free_port", {"$var(map)", "$var(port)"});
    prepare("tarn_memdb_clear_pmap", {});
    prepare("tarn_memdb_insert", {"p,$var(row)"});
    prepare("tarn_memdb_delete", {"p,$var(row)"});
    prepare("tarn_memdb_update", {"p,$var(row)", "$var(values)"});
    prepare("sqll_tarn_memdb_insert", {"$var(sql)"});
    prepare("sqll_tarn_memdb_delete", {"$var(sql)"});
    prepare("sqll_tarn_memdb_update", {"$var(sql)"});
  }
  int go(const std::string &key) { return call_often(prepared_.at(key)); }

  // Picks a map and tells the module its word.
  model_map &some_map() {
    const auto i = static_cast<size_t>(below(4));
    standin::set_var("map", WORDS[i]);
    return maps_[i];
  }
  // A port of the map, or one beside it.
  int some_port(const model_map &map) {
    const int number = map.min() - 1 + below(map.max() - map.min() + 3);
    standin::set_var("port", number);
    return number;
  }

  void get_one() {
    model_map &map = some_map();
    ASSERT_EQ(go("tarn_memdb_get_port1"), map.take_next());
  }
  void get_into() {
    model_map &map = some_map();
    const bool fits = &map == &maps_[0] || &map == &maps_[1];
    standin::clear_avps();
    ASSERT_EQ(go("tarn_memdb_get_port2"), fits ? 1 : -1);
    if (!fits) return;
    ASSERT_EQ(avp_texts("port"), texts{std::to_string(map.take_next())});
  }
  void from_range() {
    model_map &map = some_map();
    int base = some_port(map);
    if (!map.ranges().empty() && !one_in(3)) {
      const auto &range =
          map.ranges()[static_cast<size_t>(below(static_cast<int>(map.ranges().size())))];
      if (!range.empty()) base = range[0];
      standin::set_var("port", base);
    }
    ASSERT_EQ(go("tarn_memdb_get_port_from_range2"), map.take_from(base));
  }
  void set() {
    model_map &map = some_map();
    const int number = some_port(map);
    ASSERT_EQ(go("tarn_memdb_set_port2"), map.set(number));
  }
  void free() {
    model_map &map = some_map();
    const int number = some_port(map);
    ASSERT_EQ(go("tarn_memdb_free_port2"), map.release(number));
  }

  model_map &map_of(const model_row &row) {
    return maps_[(dynamic_ ? 0U : 2U) + (row.internal ? 0U : 1U)];
  }
  static int number_in(const std::string &port) { return atoi(port.c_str()); }

  void insert() {
    model_row row{next_id_++, one_in(2), ""};
    row.port = one_in(8) ? "" : std::to_string(some_port(map_of(row)));
    const bool by_type = row.internal && one_in(2);
    const std::string location = row.internal && !by_type ? "WAN" : "LAN";
    const std::string type = by_type ? "6" : "1";
    const std::string id = std::to_string(row.id);
    // By statement or by query; the other side's column names a port that isn't looked at.
    if (one_in(2)) {
      standin::set_var("sql", std::string("INSERT INTO p id,") + (row.internal ? "in" : "ex") +
                                  ",loc," + (dynamic_ ? "dt" : "st") + " VALUES " + id + "," +
                                  row.port + "," + location + "," + type);
      ASSERT_EQ(go("sqll_tarn_memdb_insert1"), 1);
    } else {
      standin::set_var("row", id + "|a|b|c|" + (row.internal ? row.port : "101") + "|" + location +
                                  "|" + (row.internal ? "201" : row.port) + "|" +
                                  (dynamic_ ? "6" : type) + "|" + (dynamic_ ? type : "6"));
      ASSERT_EQ(go("tarn_memdb_insert1"), 1);
    }
    map_of(row).hold(number_in(row.port));
    rows_.push_back(row);
  }

  void remove() {
    if (rows_.empty()) return;
    const size_t i = static_cast<size_t>(below(static_cast<int>(rows_.size())));
    const model_row row = rows_[i];
    if (one_in(2)) {
      standin::set_var("row", std::to_string(row.id) + "|*|*|*|*|*|*|*|*");
      ASSERT_EQ(go("tarn_memdb_delete1"), 1);
    } else {
      standin::set_var("sql", "DELETE FROM p WHERE id=" + std::to_string(row.id));
      ASSERT_EQ(go("sqll_tarn_memdb_delete1"), 1);
    }
    map_of(row).release(number_in(row.port));
    rows_.erase(rows_.begin() + static_cast<long>(i));
  }

  // Gives a row another port, with or without naming the old one in the selection.
  void update() {
    if (rows_.empty()) return;
    model_row &row = rows_[static_cast<size_t>(below(static_cast<int>(rows_.size())))];
    const std::string port = one_in(4) ? row.port : std::to_string(some_port(map_of(row)));
    const bool named = one_in(2);
    const std::string column = row.internal ? "in" : "ex";
    const std::string id = std::to_string(row.id);
    const bool by_statement = one_in(2) || port.empty();
    if (by_statement) {
      const std::string old_port = row.port.empty() ? "''" : row.port;
      standin::set_var("sql", "UPDATE p SET k2=x," + column + "=" + port + " WHERE id=" + id +
                                  (named ? "," + column + "=" + old_port : ""));
      ASSERT_EQ(go("sqll_tarn_memdb_update1"), 1);
    } else {
      const std::string wanted = named ? row.port : "*";
      standin::set_var("row", id + "|*|*|*|" + (row.internal ? wanted : "*") + "|*|" +
                                  (row.internal ? "*" : wanted) + "|*|*");
      standin::set_var("values", column + "=" + port);
      ASSERT_EQ(go("tarn_memdb_update2"), 1);
    }
    // Only what the selection names is given back, and nothing is taken.
    if (named && (port != row.port || port.empty())) map_of(row).release(number_in(row.port));
    if (!port.empty()) row.port = port;
  }

  void clear_all() {
    ASSERT_EQ(go("tarn_memdb_clear_pmap0"), 1);
    for (model_map &map : maps_) map.clear();
    rows_.clear();
  }

  std::mt19937 random_;
  bool dynamic_ = false;
  std::array<model_map, 4> maps_;
  std::vector<model_row> rows_;
  int next_id_ = 1;
  std::map<std::string, standin::command> prepared_;

 protected:
  void drop_calls() { prepared_.clear(); }
};

// Each block of seeds is a test of its own.
class PortModelSeedsTest : public PortModelTest, public testing::WithParamInterface<uint32_t> {};

constexpr uint32_t SEEDS_PER_TEST = 250;

TEST_P(PortModelSeedsTest, RandomCallsDoWhatTheModelDoes) {
  for (uint32_t seed = GetParam(); seed < GetParam() + SEEDS_PER_TEST; seed++) {
    start_random(seed);
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
    expect_equal_maps();
    for (int i = 0; i < STEPS; i++) {
      step();
      expect_equal_maps();
      ASSERT_FALSE(HasFatalFailure()) << "seed " << seed << ", step " << i;
    }
    drop_calls();
    forget_view();
    unload();
    std::remove(main_file("p").c_str());
    std::remove(backup_file("p").c_str());
    load();
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, PortModelSeedsTest,
                         testing::Range(uint32_t{0}, uint32_t{2000}, SEEDS_PER_TEST));

// Many holders of one port, where the count turns negative and wraps.
TEST_F(PortModelTest, ManyHoldersOfOnePortDoWhatTheModelDoes) {
  ASSERT_TRUE(module().set_param("min_int_port", 100));
  ASSERT_TRUE(module().set_param("max_int_port", 101));
  table holder{"p", {}, 300};
  for (const char *name : {"id", "k1", "k2", "k3", "in", "loc", "ex", "st", "dt"})
    holder.columns.push_back({name});
  holder.ports = {{"dynamic", 4, 6}};
  start({holder});
  standin::set_debug_level(ERR_LEVEL);
  model_map model(100, 2);
  const standin::command insert = fixup("tarn_memdb_insert", {"p,1|a|b|c|100|WAN|0|0|0"});
  const standin::command release = fixup("tarn_memdb_free_port", {"INT", "100"});
  for (int holders = 1; holders <= 140; holders++) {
    ASSERT_EQ(call(insert), 1);
    model.hold(100);
    ASSERT_EQ(view().bytes("INT"), model.bytes()) << holders;
    if (holders % 7 != 0) continue;
    ASSERT_EQ(call(release), model.release(100));
    ASSERT_EQ(view().bytes("INT"), model.bytes()) << holders;
  }
}

}  // namespace
}  // namespace module_test
