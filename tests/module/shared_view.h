// The module's shared memory seen from outside: its registry, port maps and locks where the module
// has put them, and the rule that no call leaves a lock behind.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ports/port_map.h"
#include "tables/tarn_tbl.h"
#include "tests/module/fixture.h"

namespace module_test {

// The words of the port maps, in the order in which the module makes them.
inline constexpr const char *MAP_WORDS[] = {"INT", "EXT", "STATIC_INT", "STATIC_EXT"};

// Registry, port maps and locks where the module has put them. It makes them in one order at its
// start and keeps them to its end.
class shared_view {
 public:
  shared_view() {
    const std::vector<standin::block_info> blocks = standin::live_blocks(pool::shm, "tarn_memdb");
    size_t next = 0;
    const auto take = [&blocks, &next](size_t size) {
      const standin::block_info &block = blocks.at(next++);
      if (block.size != size) throw std::logic_error("shared blocks in another order");
      return const_cast<void *>(block.address);
    };
    registry_ = static_cast<tarn_mngt *>(take(sizeof(tarn_mngt)));
    for (port_m *&map : maps_) map = static_cast<port_m *>(take(sizeof(port_m)));
    for (const port_m *map : maps_)
      if (take(static_cast<size_t>(map->max_port - map->min_port + 1)) != map->port_map)
        throw std::logic_error("port maps in another order");
    port_lock_ = static_cast<tarn_lock *>(take(sizeof(tarn_lock)));
  }

  tarn_tbl &table(const std::string &name) const {
    for (int32_t i = 0; i < registry_->num_table; i++)
      if (name == registry_->tables[i].table_name) return registry_->tables[i];
    throw std::logic_error("no table " + name);
  }

  // The map by its word.
  port_m &map(const std::string &word) const {
    for (size_t i = 0; i < std::size(MAP_WORDS); i++)
      if (MAP_WORDS[i] == word) return *maps_[i];
    throw std::logic_error("no map " + word);
  }

  // The byte of a port.
  int port(const std::string &word, int number) const {
    const port_m &m = map(word);
    return m.port_map[number - m.min_port];
  }
  std::vector<int> bytes(const std::string &word) const {
    const port_m &m = map(word);
    return {m.port_map, m.port_map + (m.max_port - m.min_port + 1)};
  }

  tarn_lock *port_lock() const { return port_lock_; }

  // Names of all locks that are held.
  texts held_locks() const {
    texts out;
    for (int32_t i = 0; i < registry_->num_table; i++)
      if (registry_->tables[i].lock->load() != 0) out.push_back(registry_->tables[i].table_name);
    if (port_lock_->load() != 0) out.push_back("port maps");
    return out;
  }

 private:
  tarn_mngt *registry_;
  port_m *maps_[4];
  tarn_lock *port_lock_;
};

class SharedViewTest : public ModuleTest {
 protected:
  // What stands in shared memory. Valid until the module is unloaded.
  shared_view &view() {
    if (!view_) view_.emplace();
    return *view_;
  }
  // To be called ahead of a start after the first one in a test.
  void forget_view() { view_.reset(); }

  // Calls as the fixture makes them; no lock may be held afterwards.
  int call(const standin::command &prepared) {
    const int result = ModuleTest::call(prepared);
    EXPECT_THAT(view().held_locks(), testing::IsEmpty()) << "after " << prepared.row()->name;
    return result;
  }
  int run(const std::string &function, const texts &parameters) {
    return call(fixup(function, parameters));
  }

  // The same with checks that cost little, for long runs of calls: blocks are counted, not listed.
  int call_often(const standin::command &prepared) {
    const size_t blocks = standin::live_count(pool::pkg);
    const int result = module().run(prepared, msg);
    EXPECT_EQ(standin::live_count(pool::pkg), blocks) << "left by " << prepared.row()->name;
    EXPECT_THAT(view().held_locks(), testing::IsEmpty()) << "after " << prepared.row()->name;
    return result;
  }

  // Forgets what was logged and delivered so far.
  void clear() {
    standin::clear_logs();
    standin::clear_avps();
    standin::clear_xavps();
  }

  // What was logged at DBG and graver levels by one call.
  std::vector<message> trace(const std::string &function, const texts &parameters) {
    const standin::command prepared = fixup(function, parameters);
    standin::clear_logs();
    call(prepared);
    return messages();
  }

  // Puts another text into the slot of a prepared call, as no fix-up would leave it.
  static void replace_text(const standin::command &prepared, size_t slot, const std::string &text) {
    char *const place = prepared.slot(slot).get();
    if (text.size() > std::string(place).size()) throw std::logic_error("no room for " + text);
    text.copy(place, text.size());
    place[text.size()] = '\0';
  }

  // Calls a function with null in one of its slots.
  int call_with_null(const standin::command &prepared, size_t slot) {
    void **const place = prepared.slot(slot).address();
    void *const kept = *place;
    *place = nullptr;
    const int result = call(prepared);
    *place = kept;
    return result;
  }

  void TearDown() override {
    view_.reset();
    ModuleTest::TearDown();
  }

 private:
  std::optional<shared_view> view_;
};

}  // namespace module_test
