// Which row holds which port first.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "ports/port_map.h"

struct port_holder {
  const std::string *path;
  int line;
};

class port_holders {
 public:
  // The first holder of the map's port, or null.
  const port_holder *find(const port_m *map, int32_t port) const {
    const auto found = holders_.find(key(map, port));
    return found != holders_.end() ? &found->second : nullptr;
  }

  // path outlives this.
  void add(const port_m *map, int32_t port, const std::string &path, int line) {
    holders_.emplace(key(map, port), port_holder{&path, line});
  }

  void add_all(const port_holders &others) {
    holders_.insert(others.holders_.begin(), others.holders_.end());
  }

  bool empty() const { return holders_.empty(); }

 private:
  static uint64_t key(const port_m *map, int32_t port) {
    uint64_t number = 0;
    while (*port_map_kinds[number].map != map) number++;
    return number << 32 | static_cast<uint32_t>(port);
  }

  std::unordered_map<uint64_t, port_holder> holders_;
};
