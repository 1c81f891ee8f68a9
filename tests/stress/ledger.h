// What the stress processes note of their calls, in memory that they share with the program that
// checks it all at the end.
#pragma once

#include <atomic>
#include <cstdint>

namespace stress {

inline constexpr int PROCESSES = 8;
inline constexpr int MODELLED = 3;  // tables whose every row some process knows
inline constexpr int SLOTS = 32;    // rows that a process may have in a modelled table
inline constexpr int KEYS = 24;     // rows that all processes fight for
inline constexpr int CLIPS = 16;    // ports that a process may hold for its rows at once
inline constexpr int LAST_PORT = 65536;
inline constexpr uint32_t NUMBERS = 1 << 24;

// A row as its owner left it.
struct slot {
  bool present;
  uint32_t number;  // stands in its plain columns
  int32_t index;    // the generated one
};

// What a process did. Only its owner writes to it.
struct account {
  slot rows[MODELLED][SLOTS];
  int64_t key_balance[KEYS];
  int64_t drawn[2];         // index numbers got from the two tables that generate them
  int64_t cleared_inserts;  // rows put into the table that is cleared now and then
  int64_t port_inserts;
  int64_t port_deletes;
  int64_t operations;
};

struct ledger {
  account accounts[PROCESSES];
  std::atomic<int64_t> deviations;
  std::atomic<uint8_t> number_given[2][NUMBERS];
  // Holders of each port that scripts took, by map in the order of port_map_kinds.
  std::atomic<int32_t> port_held[4][LAST_PORT];
};

// A zeroed ledger in a mapping that forked processes share.
ledger *make_ledger();
extern ledger *book;

// Counts a deviation and tells of it; after the first few they are only counted.
void deviation(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace stress
