// Sums of bytes.
#include "tools/check/memory_check.h"

#include <algorithm>

#include "tools/common/shared_pool.h"

namespace {

constexpr size_t MB = size_t{1} << 20;

// What a server has that isn't told otherwise.
constexpr size_t USUAL_MB = 64;

// What a server with tm and some modules takes at its start, as core.shmmem tells it, and some of
// what its calls take.
constexpr size_t SERVER_SHARE = 4 * MB;

std::string shown(size_t tenths) {
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " MB";
}

// Rounded down, as what is needed is rounded up.
std::string left_in_mb(size_t bytes) { return shown(bytes * 10 / MB); }

}  // namespace

std::string in_mb(size_t bytes) { return shown((bytes * 10 + MB - 1) / MB); }

void check_memory(const std::string &schema, const memory_forecast &need, size_t limit_mb,
                  findings *out) {
  const std::string have = std::to_string(limit_mb) + " MB";
  const size_t limit = limit_mb * MB;
  if (limit_mb == 0) {
    if (need.at_start > server_memory.size() && !need.holds_files)
      out->error(schema, 0,
                 "the tables take " + in_mb(need.at_start) +
                     " of shared memory, more than this machine has for the check");
    else if (need.at_start > USUAL_MB * MB)
      out->warn(schema, 0,
                "the tables take " + in_mb(need.at_start) + " of shared memory: a server has " +
                    std::to_string(USUAL_MB) +
                    " MB unless its option -m says more, and --memory says so here");
    return;
  }
  if (need.at_start > limit && !need.holds_files)
    out->error(schema, 0,
               "the tables take " + in_mb(need.at_start) +
                   " of shared memory, and the server has " + have + ": not all rows are loaded");
  else if (need.at_start + SERVER_SHARE > limit)
    out->warn(schema, 0,
              "the tables leave " + left_in_mb(limit - std::min(need.at_start, limit)) + " of " +
                  have + " to the server and its other modules, which take some " +
                  std::to_string(SERVER_SHARE / MB) + " MB themselves");
  else if (need.when_full + SERVER_SHARE > limit)
    out->warn(schema, 0,
              "with as many rows as MAX_ROWS lets in the tables take " + in_mb(need.when_full) +
                  ", and the server has " + have + ": inserts fail before that");
}
