// The harnesses' common ground.
#include "tests/fuzz/fuzz_support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "memdb/index/index.h"
#include "tables/shared/shared_memory.h"
#include "tests/support/bucket_rows.h"

namespace fuzz {
namespace {

constexpr size_t BLOCK_LIMIT = size_t{1} << 16;
constexpr size_t RUN_LIMIT = size_t{1} << 20;
constexpr size_t MOST_TABLES = 4;

// The stand-in's own allocators behind the limit, and what one run has taken.
struct limited_memory {
  decltype(sr_pkg_api_t::xmalloc) pkg_malloc = nullptr;
  decltype(sr_pkg_api_t::xrealloc) pkg_realloc = nullptr;
  decltype(sr_shm_api_t::xmalloc) shm_malloc = nullptr;
  decltype(sr_shm_api_t::xrealloc) shm_realloc = nullptr;
  size_t taken = 0;
  bool refused = false;
} memory;

bool is_within_limit(size_t size) {
  if (size <= BLOCK_LIMIT && memory.taken + size <= RUN_LIMIT) {
    memory.taken += size;
    return true;
  }
  memory.refused = true;
  return false;
}

template <auto limited_memory::*real>
void *limited_malloc(void *block, size_t size, const char *file, const char *func,
                     unsigned int line, const char *owner) {
  return is_within_limit(size) ? (memory.*real)(block, size, file, func, line, owner) : nullptr;
}

template <auto limited_memory::*real>
void *limited_realloc(void *block, void *old, size_t size, const char *file, const char *func,
                      unsigned int line, const char *owner) {
  return is_within_limit(size) ? (memory.*real)(block, old, size, file, func, line, owner)
                               : nullptr;
}

void limit_memory() {
  if (memory.pkg_malloc == nullptr) {
    memory.pkg_malloc = _pkg_root.xmalloc;
    memory.pkg_realloc = _pkg_root.xrealloc;
    memory.shm_malloc = _shm_root.xmalloc;
    memory.shm_realloc = _shm_root.xrealloc;
    _pkg_root.xmalloc = limited_malloc<&limited_memory::pkg_malloc>;
    _pkg_root.xrealloc = limited_realloc<&limited_memory::pkg_realloc>;
    _shm_root.xmalloc = limited_malloc<&limited_memory::shm_malloc>;
    _shm_root.xrealloc = limited_realloc<&limited_memory::shm_realloc>;
  }
  memory.taken = 0;
  memory.refused = false;
}

// Debug messages are printed, so that their arguments are read, and forgotten: a run has thousands.
decltype(_ksr_slog_func) kept_sink;

void keep_but_debug(ksr_logdata_t *data, const char *format, ...) {
  static char text[size_t{1} << 16];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof(text), format, values);
  va_end(values);
  if (data->v_level < L_DBG) kept_sink(data, "%s", text);
}

// The rows of the list, each of them whole and linked both ways.
std::set<const memdb_row *> listed_rows(const memdb_tbl *tbl) {
  std::set<const memdb_row *> out;
  const memdb_row *before = nullptr;
  for (const memdb_row *row = tbl->first; row != nullptr; row = row->next) {
    REQUIRE(row->prev == before);
    REQUIRE(out.insert(row).second);
    for (const memdb_col &col : memdb_cols(tbl))
      REQUIRE(memchr(memdb_data(row) + col.offset, '\0', col.size) != nullptr);
    before = row;
  }
  REQUIRE(tbl->last == before);
  return out;
}

// The rows of one column's chains: all of them listed, and none twice.
std::set<const memdb_row *> chained_rows(const memdb_col &col,
                                         const std::set<const memdb_row *> &listed) {
  std::set<const memdb_row *> out;
  for (uint32_t bucket = 0; bucket < col.idx_len; ++bucket) {
    for (const memdb_row *row : bucket_rows(col, bucket, listed.size() + 1)) {
      REQUIRE(listed.count(row) == 1);
      REQUIRE(out.insert(row).second);
    }
  }
  return out;
}

// Every chain of the column holds the keys of its bucket, in order.
void require_order(const memdb_col &col) {
  for (uint32_t bucket = 0; bucket < col.idx_len; ++bucket) {
    const bool is_chain = memdb_bucket_kind(col.idx[bucket]).is_chain();
    const char *before = nullptr;
    for (const memdb_row *row : bucket_rows(col, bucket)) {
      const char *const text = memdb_data(row) + col.offset;
      REQUIRE(memdb_hash1(text) % col.idx_len == bucket);
      REQUIRE(!is_chain || before == nullptr || strcmp(before, text) <= 0);
      before = text;
    }
  }
}

void require_count(const tarn_tbl *table) {
  REQUIRE(table->row_count == static_cast<int32_t>(rows_of(table->tbl).size()));
}

}  // namespace

void fail(const char *file, int line, const char *condition) {
  fprintf(stderr, "%s:%d: doesn't hold: %s\n%s\n", file, line, condition,
          standin::log_dump().c_str());
  abort();
}

heap_text::heap_text(std::string_view text)
    : bytes_(new char[text.size() + 1]), size_(text.size()) {
  text.copy(bytes_.get(), size_);
  bytes_[size_] = '\0';
}

str heap_text::terminated() const { return {bytes_.get(), static_cast<int>(strlen(bytes_.get()))}; }

run::run() {
  standin::reset();
  limit_memory();
  install_engine_hooks();
  kept_sink = _ksr_slog_func;
  _ksr_slog_func = keep_but_debug;
}

run::~run() {
  standin::stop_failing();
  standin::check_blocks();
  REQUIRE(standin::leak_report(standin::pool::both).empty());
  REQUIRE(standin::memory_errors().empty());
  REQUIRE(standin::misuses().empty());
  REQUIRE(dprint_crit == 0);
}

void fail_allocation(unsigned n) {
  if (n != 0) standin::fail_at(standin::pool::both, n);
}

bool memory_was_short() { return memory.refused || standin::failed_allocations() > 0; }

memory_file::memory_file(std::string_view bytes)
    : descriptor_(memfd_create("input", MFD_CLOEXEC)),
      path_("/proc/self/fd/" + std::to_string(descriptor_)) {
  REQUIRE(descriptor_ >= 0);
  REQUIRE(write(descriptor_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
}

memory_file::~memory_file() { close(descriptor_); }

const std::string &directory() {
  static const struct made {
    made() {
      const char *const shared = "/dev/shm";
      const auto base = access(shared, W_OK) == 0 ? std::filesystem::path(shared)
                                                  : std::filesystem::temp_directory_path();
      path = (base / "fuzz.XXXXXX").string();
      REQUIRE(mkdtemp(path.data()) != nullptr);
      path += '/';
    }
    ~made() { std::filesystem::remove_all(path); }
    std::string path;
  } only;
  return only.path;
}

std::optional<std::string> read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void write_file(const std::string &path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

registry::registry() : tables_(MOST_TABLES) {
  mngt_.tables = tables_.data();
  tarn_tbl_mngt = &mngt_;
}

registry::~registry() {
  for (tarn_tbl &table : tables_) memdb_destroy_tbl(table.tbl);
  tarn_tbl_mngt = nullptr;
}

tarn_tbl *registry::add(const char *name, const std::vector<column> &columns, int32_t max_rows) {
  tarn_tbl &table = tables_.at(static_cast<size_t>(mngt_.num_table++));
  snprintf(table.table_name, sizeof(table.table_name), "%s", name);
  snprintf(table.file_name, sizeof(table.file_name), "%s", name);
  table.max_rows = max_rows;
  table.num_fields = static_cast<int32_t>(columns.size());
  table.next_index = 1;
  std::vector<tbl_dcl> declared;
  std::vector<char *> &names = names_.emplace_back();
  for (const column &c : columns) {
    declared.push_back({c.len, c.indexed ? MEMDB_COL_INDEXED : 0});
    names.push_back(const_cast<char *>(c.name));
  }
  table.field_name = names.data();
  table.tbl = memdb_create_tbl(declared.data(), static_cast<uint32_t>(columns.size()));
  REQUIRE(table.tbl != nullptr);
  return &table;
}

port_maps::port_maps(const char *private_ranges) {
  std::string text;
  for (const port_map_kind &kind : port_map_kinds) {
    const_cast<port_bounds &>(*kind.bounds) = {100, 131};
    if (*private_ranges != '\0') text += std::string(kind.word) + " " + private_ranges + "\n";
  }
  const memory_file file(text);
  port_settings.private_ranges_file_path = file.path();
  REQUIRE(init_port_maps());
  port_settings.private_ranges_file_path = "";
}

port_maps::~port_maps() {
  REQUIRE(port_map_lock->load() == 0);
  destroy_port_maps();
  for (const port_map_kind &kind : port_map_kinds) *kind.map = nullptr;
}

std::vector<std::vector<std::string>> rows_of(const memdb_tbl *tbl) {
  std::vector<std::vector<std::string>> out;
  for (const memdb_row *row = tbl->first; row != nullptr; row = row->next) {
    std::vector<std::string> &fields = out.emplace_back();
    for (uint32_t i = 0; i < tbl->col_cnt; ++i) fields.emplace_back(memdb_get_field(tbl, row, i));
  }
  return out;
}

void require_whole(const memdb_tbl *tbl) {
  const auto listed = listed_rows(tbl);
  for (const memdb_col &col : memdb_cols(tbl)) {
    if (!memdb_is_indexed(col)) continue;
    REQUIRE(chained_rows(col, listed) == listed);
    require_order(col);
  }
}

void require_whole(const tarn_tbl *table) {
  require_whole(table->tbl);
  require_count(table);
}

void require_sound(const tarn_tbl *table) {
  const auto listed = listed_rows(table->tbl);
  for (const memdb_col &col : memdb_cols(table->tbl))
    if (memdb_is_indexed(col)) chained_rows(col, listed);
  require_count(table);
}

}  // namespace fuzz
