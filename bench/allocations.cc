// Counts the blocks that one call of each function takes from the host's two allocators, those that
// the host takes for itself not counted.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/started_module.h"
#include "host/loader_symbols.h"

namespace {

using bench::started_module;

struct counted_call {
  const char *title;
  const char *function;
  std::vector<std::string> parameters;
  int result;
};

// Each leaves the table as the next one needs it.
const counted_call CALLS[] = {
    {"insert", "tarn_memdb_insert", {"flat,new|x|y|z"}, 1},
    {"select of a row into AVPs",
     "tarn_memdb_select",
     {"flat,new|*|*|*,1", "|$avp(a)|$avp(b)|$avp(c)"},
     1},
    {"the same without the lock",
     "tarn_memdb_nl_select",
     {"flat,new|*|*|*,1", "|$avp(a)|$avp(b)|$avp(c)"},
     1},
    {"select of a row that isn't there", "tarn_memdb_select", {"flat,old|*|*|*,1", "|$avp(a)"}, -2},
    {"select of a row as an XAVP", "tarn_memdb_xavp_select", {"flat,new|*|*|*,1", "found"}, 1},
    {"update", "tarn_memdb_update", {"flat,new|*|*|*", "*|w|*|*"}, 1},
    {"best match", "tarn_memdb_select_best_match", {"flat,*|*|yes|*", "$avp(a)", "2"}, 1},
    {"SELECT statement",
     "sqll_tarn_memdb_select",
     {"SELECT a,b FROM flat WHERE key=new MAX=1", "$avp(a);$avp(b)"},
     1},
    {"delete", "tarn_memdb_delete", {"flat,new|*|*|*"}, 1},
    {"INSERT statement", "sqll_tarn_memdb_insert", {"INSERT INTO flat key,a VALUES new,x"}, 1},
    {"DELETE statement", "sqll_tarn_memdb_delete", {"DELETE FROM flat WHERE key=new"}, 1},
    {"insert with a generated index", "tarn_memdb_insert", {"numbered,|x"}, 1},
};

// Counts ahead of the stand-in's own allocator.
template <auto &root>
struct counter {
  static inline int count = 0;
  static inline void *(*behind)(void *, size_t, const char *, const char *, unsigned int,
                                const char *) = nullptr;

  static void *take(void *block, size_t size, const char *file, const char *func, unsigned int line,
                    const char *owner) {
    if (strcmp(owner, "tarn_memdb") == 0) count++;
    return behind(block, size, file, func, line, owner);
  }
  static void install() {
    behind = root.xmalloc;
    root.xmalloc = take;
  }
};

void print_counts() {
  started_module module(
      std::make_unique<standin::loaded_module>(exports),
      {{"flat", {{"key", 31, true}, {"a", 15}, {"b", 31}, {"c", 63}}, bench::MAX_ROWS},
       {"numbered", {{"id", 10, true}, {"a", 15}}, 100, "", true}});
  using private_blocks = counter<_pkg_root>;
  using shared_blocks = counter<_shm_root>;
  private_blocks::install();
  shared_blocks::install();
  printf("%-36s %10s %10s\n", "", "private", "shared");
  for (const counted_call &call : CALLS) {
    const standin::command prepared = module.prepare(call.function, call.parameters);
    private_blocks::count = shared_blocks::count = 0;
    module.expect(prepared, call.result);
    printf("%-36s %10d %10d\n", call.title, private_blocks::count, shared_blocks::count);
  }
}

}  // namespace

int main() { return bench::run_main(print_counts); }
