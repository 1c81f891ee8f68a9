// What the tests of the port maps share: small maps, a private range file, and the rule that a test
// leaves no block, stream or lock behind.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ports/port_map.h"
#include "tables/shared/shared_memory.h"
#include "tests/standin/file_faults.h"
#include "tests/standin/standin.h"

using message = std::pair<int, std::string>;

// All messages, debug included, in order.
inline std::vector<message> all_messages() {
  std::vector<message> out;
  for (const standin::log_record &record : standin::logs())
    out.emplace_back(record.level, record.text);
  return out;
}

// Those above debug.
inline std::vector<message> messages() {
  std::vector<message> out;
  for (const message &m : all_messages())
    if (m.first != L_DBG) out.push_back(m);
  return out;
}

inline message dbg(const std::string &text) { return {L_DBG, text}; }
inline message err(const std::string &text) { return {L_ERR, text}; }
inline message info(const std::string &text) { return {L_INFO, text}; }

class PortTest : public testing::Test {
 protected:
  static constexpr int32_t MIN = 100;
  static constexpr int32_t MAX = 103;

  void SetUp() override {
    standin::reset();
    std::string name = (std::filesystem::temp_directory_path() / "ports.XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    path_ = directory_ + "/ranges";
    port_settings.private_ranges_file_path = path_.c_str();
    for (const port_map_kind &kind : port_map_kinds) *kind.map = nullptr;
    port_map_lock = nullptr;
    set_all_bounds(MIN, MAX);
    standin::watch_files(directory_);
  }

  void TearDown() override {
    standin::stop_failing();
    standin::stop_failing_files();
    destroy_port_maps();
    EXPECT_EQ(standin::open_streams(), 0);
    EXPECT_EQ(standin::leak_report(standin::pool::both), "");
    standin::check_blocks();
    EXPECT_THAT(standin::memory_errors(), testing::IsEmpty());
    EXPECT_THAT(standin::misuses(), testing::IsEmpty());
    standin::watch_files("");
    std::filesystem::remove_all(directory_);
    standin::reset();
  }

  static void set_bounds(const port_map_kind &kind, int32_t min, int32_t max) {
    const_cast<port_bounds &>(*kind.bounds) = {min, max};
  }

  static void set_all_bounds(int32_t min, int32_t max) {
    for (const port_map_kind &kind : port_map_kinds) set_bounds(kind, min, max);
  }

  void write_file(const std::string &text) const { std::ofstream(path_, std::ios::binary) << text; }

  // Makes the maps anew, with the private ranges of that text.
  void start(const std::string &ranges = "") {
    destroy_port_maps();
    if (!ranges.empty()) write_file(ranges);
    ASSERT_TRUE(init_port_maps());
    standin::clear_logs();
  }

  // Runs body while another thread holds port_map_lock. True if body waited for it.
  template <typename Body>
  static bool waits_for_lock(Body body) {
    std::atomic<bool> done{false};
    take_lock(port_map_lock);
    std::thread runner([&] {
      body();
      done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const bool waited = !done;
    release_lock(port_map_lock);
    runner.join();
    return waited;
  }

  static bool lock_is_free() { return port_map_lock->load() == 0; }

  const std::string &path() const { return path_; }

 private:
  std::string directory_;
  std::string path_;
};

// The entries of a map as the bytes that they are.
inline std::vector<int> entries(const port_m *m) {
  std::vector<int> out;
  for (int64_t port = m->min_port; port <= m->max_port; ++port)
    out.push_back(m->port_map[port - m->min_port]);
  return out;
}

// The ten ports of a private range.
inline std::vector<int32_t> range_of(const port_m *m, int32_t number) {
  const int32_t *const ports = m->private_range[number]->port;
  return {ports, ports + PRIVATE_RANGE_PORTS};
}
