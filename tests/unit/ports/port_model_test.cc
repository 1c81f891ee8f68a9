// Random runs of all operations on small maps, beside a plain model that says what each answers,
// logs and leaves.
#include <array>
#include <cstdarg>
#include <optional>
#include <random>
#include <sstream>

#include "ports/port_allocation.h"
#include "ports/private_ranges.h"
#include "tests/unit/ports/port_fixture.h"

namespace {

__attribute__((format(printf, 1, 2))) std::string print(const char *format, ...) {
  char text[256];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof(text), format, values);
  va_end(values);
  return text;
}

// One map told in plain values: no bits, no pointers.
class model_map {
 public:
  // One that talks keeps what the module has to log.
  model_map(int32_t min, int32_t max, bool talks)
      : min_(min),
        max_(max),
        next_(min),
        talks_(talks),
        ports_(static_cast<size_t>(max - min + 1)) {}

  int set(int32_t port) {
    say("Setting port %d\n", port);
    if (!has(port)) return refuse(port);
    say("Port %d is within range\n", port);
    at(port).used = true;
    if (port == next_) update();
    say("Port %d is being reserved, value 0x%x \n", port, widened(port));
    return 1;
  }

  int count(int32_t port) {
    if (!has(port)) return refuse(port);
    say("Port %d Before Value = 0x%x\n", port, widened(port));
    at(port).holders = (at(port).holders + 1) % 64;
    at(port).used = true;
    say("Port %d After Value = 0x%x\n", port, widened(port));
    return 1;
  }

  int release(int32_t port) {
    if (!has(port)) return refuse(port);
    one &p = at(port);
    const bool reads_positive = p.holders >= 1 && p.holders <= 31;
    if (p.used && reads_positive) --p.holders;
    if (p.holders == 0) {
      p.used = false;
      if (next_ == -1 && is_private(port) == 0) {
        next_ = port;
        say("New Free Port updated to %d\n", port);
      }
    }
    say("Port = %d is freed and value update to 0x%x\n", port, widened(port));
    return 0;
  }

  void update() {
    say("Current free port is %d\n", next_);
    const int32_t above = next_ + 1;
    if (is_free(above) == 1 && is_private(above) == 0)
      next_ = above;
    else
      next_ = find();
    say("Next free port update to %d\n", next_);
  }

  int is_free(int32_t port) {
    if (!has(port)) {
      refuse(port);
      return 0;
    }
    say("Port %d is within range\n", port);
    if (at(port).used) {
      say("Port = %d is in USE, value=%d \n", port, static_cast<int>(widened(port)));
      return 0;
    }
    say("Port = %d is FREE, value=%d \n", port, static_cast<int>(widened(port)));
    return 1;
  }

  int is_private(int32_t port) {
    if (ranges_.empty()) {
      say("There is no private range of ports within this range\n");
      return 0;
    }
    if (!has(port)) {
      complain("Port %d out of range\n", port);
      return 0;
    }
    const bool reserved = at(port).reserved;
    say("Port %d is within range and it is %s for a private range\n", port,
        reserved ? "reserved" : "not reserved");
    say("Port %d is %s for a private range\n", port, reserved ? "reserved" : "not reserved");
    return reserved ? 1 : 0;
  }

  int32_t find() {
    for (int32_t port = min_; port <= max_; ++port) {
      say("Processing Port = %d\n", port);
      if (is_free(port) == 0) {
        say("Port = %d is Not FREE.... IGNORE\n", port);
      } else if (is_private(port) == 1) {
        say("Port = %d is a Private Port.... IGNORE\n", port);
      } else {
        say("Found Free Port = %d\n", port);
        return port;
      }
    }
    say("No free port available\n");
    return -1;
  }

  int32_t find_in_range(int32_t base) {
    if (ranges_.empty()) {
      say("There is no private range of ports within this range\n");
      return 0;
    }
    for (const std::vector<int32_t> &range : ranges_) {
      if (range.at(0) != base) continue;
      for (size_t i = 1; i < range.size() && range[i] != -1; ++i) {
        if (is_free(range[i]) == 1) {
          say("Port %d is free in private range with base port %d\n", range[i], base);
          return range[i];
        }
        say("Port %d of private range is in use\n", range[i]);
      }
      complain("No free port available for this private range with base port %d\n", base);
      return -1;
    }
    say("The base port %d is not assigned to any private range\n", base);
    return -1;
  }

  void clear() {
    for (one &p : ports_) p = {};
    next_ = min_;
  }

  void add_range(std::vector<int32_t> listed) {
    for (const int32_t port : listed)
      if (has(port)) at(port).reserved = true;
    listed.resize(10, -1);
    ranges_.push_back(listed);
  }

  std::vector<int> entries() const {
    std::vector<int> out;
    for (const one &p : ports_) out.push_back(byte(p));
    return out;
  }

  int32_t next() const { return next_; }
  int32_t min() const { return min_; }
  int32_t max() const { return max_; }
  const std::vector<std::vector<int32_t>> &ranges() const { return ranges_; }

  std::vector<message> take_log() { return std::exchange(log_, {}); }

 private:
  struct one {
    bool used = false;
    bool reserved = false;
    int holders = 0;
  };

  static int byte(const one &p) { return (p.used ? 128 : 0) + (p.reserved ? 64 : 0) + p.holders; }
  unsigned widened(int32_t port) {
    const int value = byte(at(port));
    return static_cast<unsigned>(value < 128 ? value : value - 256);
  }
  bool has(int32_t port) const { return port >= min_ && port <= max_; }
  one &at(int32_t port) { return ports_.at(static_cast<size_t>(port - min_)); }
  int refuse(int32_t port) {
    say("Port %d out of range\n", port);
    return -2;
  }
  __attribute__((format(printf, 2, 3))) void say(const char *format, ...) {
    va_list values;
    va_start(values, format);
    keep(L_DBG, format, values);
    va_end(values);
  }
  __attribute__((format(printf, 2, 3))) void complain(const char *format, ...) {
    va_list values;
    va_start(values, format);
    keep(L_ERR, format, values);
    va_end(values);
  }
  void keep(int level, const char *format, va_list values) {
    if (!talks_) return;
    char text[256];
    vsnprintf(text, sizeof(text), format, values);
    log_.emplace_back(level, text);
  }

  int32_t min_;
  int32_t max_;
  int32_t next_;
  bool talks_;
  std::vector<one> ports_;
  std::vector<std::vector<int32_t>> ranges_;
  std::vector<message> log_;
};

class PortModelTest : public PortTest {
 protected:
  using generator = std::mt19937;

  static int32_t pick(generator &random, int32_t low, int32_t high) {
    return std::uniform_int_distribution<int32_t>(low, high)(random);
  }

  // Small maps of all sizes, some around zero, where -1 is a port.
  void make_models(generator &random, bool talking) {
    models.clear();
    for (const port_map_kind &kind : port_map_kinds) {
      const int32_t min = pick(random, 0, 9) == 0 ? pick(random, -4, 1) : pick(random, 98, 103);
      const int32_t max = min + pick(random, 0, 12) - 1;
      set_bounds(kind, min, max);
      models.emplace_back(min, max, talking);
    }
  }

  // A file of random lines, and the same to the models. The first line always names a map.
  std::string make_ranges(generator &random) {
    std::string text;
    size_t selected = 0;
    const int32_t lines = pick(random, 0, 5);
    for (int32_t line = 0; line < lines; ++line) {
      const int32_t word = pick(random, line == 0 ? 2 : 0, 5);
      if (word >= 2) selected = static_cast<size_t>(word - 2);
      if (word == 0) {
        text += "\n";
        models[selected].add_range({});
        continue;
      }
      text += word == 1 ? "other" : port_map_kinds[selected].word;
      std::vector<int32_t> listed;
      const int32_t numbers = pick(random, 0, 12);
      for (int32_t i = 0; i < numbers; ++i) {
        const model_map &m = models[selected];
        const int32_t port = pick(random, m.min() - 1, m.max() + 1);
        text += (pick(random, 0, 3) == 0 ? "\t" : " ") + std::to_string(port);
        if (listed.size() < 10) listed.push_back(port);
      }
      if (pick(random, 0, 4) == 0) text += " end 7 8";
      text += "\n";
      models[selected].add_range(listed);
    }
    return text;
  }

  void run(unsigned seed, int steps, bool compare_log) {
    generator random(seed);
    make_models(random, compare_log);
    write_file(make_ranges(random));
    standin::set_debug_level(compare_log ? L_DBG : L_CRIT);
    ASSERT_TRUE(init_port_maps());
    for (model_map &model : models) model.take_log();
    for (size_t i = 0; i < models.size(); ++i) {
      compare(i, "after the start");
      compare_shape(i, "after the start");
    }
    for (int step = 0; step < steps && !HasFailure(); ++step) {
      standin::clear_logs();
      const auto which = static_cast<size_t>(pick(random, 0, 3));
      const std::string done = operate(random, which);
      compare(which, done);
      const auto said = models[which].take_log();
      if (compare_log) {
        EXPECT_EQ(all_messages(), said) << done;
      }
    }
    for (size_t i = 0; i < models.size(); ++i) {
      compare(i, "at the end");
      compare_shape(i, "at the end");
    }
    EXPECT_FALSE(HasFailure()) << "seed " << seed;
    destroy_port_maps();
  }

  void compare(size_t which, const std::string &when) {
    const port_m *const m = *port_map_kinds[which].map;
    const model_map &model = models[which];
    EXPECT_EQ(m->next_free_port, model.next()) << when;
    EXPECT_EQ(entries(m), model.entries()) << when;
  }

  // What no operation changes.
  void compare_shape(size_t which, const std::string &when) {
    const port_m *const m = *port_map_kinds[which].map;
    const model_map &model = models[which];
    EXPECT_EQ(m->min_port, model.min()) << when;
    EXPECT_EQ(m->max_port, model.max()) << when;
    ASSERT_EQ(m->private_range_count, static_cast<int32_t>(model.ranges().size())) << when;
    for (int32_t i = 0; i < m->private_range_count; ++i)
      EXPECT_EQ(range_of(m, i), model.ranges()[static_cast<size_t>(i)]) << when;
  }

  static int32_t code_of(port_result result, int32_t done) {
    if (result == port_result::done) return done;
    return result == port_result::no_map ? -1 : -2;
  }

  // One operation on map and model; what it was, for a failing test.
  std::string operate(generator &random, size_t which) {
    port_m *const m = *port_map_kinds[which].map;
    model_map &model = models[which];
    const int32_t port = pick(random, model.min() - 2, model.max() + 2);
    const int32_t held = random_held(random, m, port);
    switch (pick(random, 0, 13)) {
      case 0:
      case 1:
        return told("set next", m->next_free_port, code_of(set_port(m, m->next_free_port), 1),
                    model.set(model.next()));
      case 2:
        return told("set", port, code_of(set_port(m, port), 1), model.set(port));
      case 3:
        return told("count", port, code_of(increment_port_count(m, port), 1), model.count(port));
      case 4:
      case 5:
        return told("free", port, code_of(free_port(m, port), 0), model.release(port));
      case 6:
        return told("free held", held, code_of(free_port(m, held), 0), model.release(held));
      case 7:
        return told("is free", port, is_port_free(m, port), model.is_free(port));
      case 8:
        return told("is private", port, is_port_private(m, port), model.is_private(port));
      case 9:
        return told("find", 0, find_free_port(m), model.find());
      case 10: {
        const int32_t base =
            model.ranges().empty() || pick(random, 0, 3) == 0
                ? port
                : model.ranges()[static_cast<size_t>(
                      pick(random, 0, static_cast<int32_t>(model.ranges().size()) - 1))][0];
        return told("find in range", base, find_free_port_in_range(m, base),
                    model.find_in_range(base));
      }
      case 11:
        update_next_free_port(m);
        model.update();
        return "update";
      case 12:
        return many(random, m, model, port);
      default:
        if (pick(random, 0, 9) != 0) return "nothing";
        clear_port_maps();
        for (model_map &each : models) each.clear();
        return "clear all";
    }
  }

  // Holders in numbers around the places where the count changes its sign and wraps.
  std::string many(generator &random, port_m *m, model_map &model, int32_t port) {
    static constexpr int32_t NUMBERS[] = {1, 2, 30, 31, 32, 33, 63, 64, 65};
    const int32_t number = NUMBERS[pick(random, 0, static_cast<int32_t>(std::size(NUMBERS)) - 1)];
    for (int32_t i = 0; i < number; ++i) {
      told("hold: set", port, code_of(set_port(m, port), 1), model.set(port));
      told("hold: count", port, code_of(increment_port_count(m, port), 1), model.count(port));
    }
    return print("hold %d by %d", port, number);
  }

  static int32_t random_held(generator &random, const port_m *m, int32_t otherwise) {
    std::vector<int32_t> held;
    for (int32_t port = m->min_port; port <= m->max_port; ++port)
      if ((m->port_map[port - m->min_port] & PORT_IN_USE) != 0) held.push_back(port);
    return held.empty()
               ? otherwise
               : held[static_cast<size_t>(pick(random, 0, static_cast<int32_t>(held.size()) - 1))];
  }

  static std::string told(const char *what, int32_t port, int32_t module, int32_t model) {
    const std::string out = print("%s %d", what, port);
    EXPECT_EQ(module, model) << out;
    return out;
  }

  std::vector<model_map> models;
};

TEST_F(PortModelTest, ThousandsOfRandomRunsLeaveTheSameMaps) {
  for (unsigned seed = 1; seed <= 3000 && !HasFailure(); ++seed) run(seed, 100, false);
}

TEST_F(PortModelTest, RandomRunsSayTheSameWordByWord) {
  for (unsigned seed = 100001; seed <= 100300 && !HasFailure(); ++seed) run(seed, 80, true);
}

TEST_F(PortModelTest, LongRunsOnOneSetOfMapsStayEqual) {
  for (unsigned seed = 200001; seed <= 200005 && !HasFailure(); ++seed) run(seed, 5000, false);
}

}  // namespace
