// Schema, start, and the plain allocators.
#include "bench/started_module.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

void *plain_malloc(void *, size_t size, const char *, const char *, unsigned int, const char *) {
  return malloc(size);
}

void *plain_realloc(void *, void *block, size_t size, const char *, const char *, unsigned int,
                    const char *) {
  return realloc(block, size);
}

void plain_free(void *, void *block, const char *, const char *, unsigned int, const char *) {
  free(block);
}

}  // namespace

work_directory::work_directory() {
  path_ = (std::filesystem::temp_directory_path() / "tarn_bench_XXXXXX").string();
  if (mkdtemp(path_.data()) == nullptr) give_up("there is no temporary directory");
}

work_directory::~work_directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

started_module::started_module(std::unique_ptr<standin::loaded_module> module,
                               const std::vector<table> &tables)
    : module_(std::move(module)) {
  standin::set_debug_level(L_ERR);
  const std::string base = directory_ / "main/";
  const std::string backup = directory_ / "backup/";
  const std::string schema = directory_ / "schema.cfg";
  mkdir(base.c_str(), 0700);
  mkdir(backup.c_str(), 0700);
  std::ofstream(schema) << schema_text::schema(base, backup, tables);
  if (!module_->set_param("cfg_file_path", schema) ||
      !module_->set_param("private_ranges_file_path", directory_ / "ranges.txt") ||
      module_->init() != 0)
    give_up("the module doesn't start:\n" + standin::log_dump());
}

started_module::~started_module() { module_->destroy(); }

standin::command started_module::prepare(const std::string &function,
                                         const std::vector<std::string> &parameters) const {
  standin::command out = module_->fixup(function, parameters);
  if (!out.accepted())
    give_up("the module refuses a call of " + function + ":\n" + standin::log_dump());
  return out;
}

void started_module::expect(const standin::command &call, int result) {
  const int got = run(call);
  if (got != result)
    give_up(std::string(call.row()->name) + " gave " + std::to_string(got) + " instead of " +
            std::to_string(result) + "\n" + standin::log_dump());
}

void give_up(const std::string &message) { throw std::runtime_error(message); }

int run_main(const std::function<void()> &work) {
  try {
    work();
    return 0;
  } catch (const std::exception &trouble) {
    fprintf(stderr, "bench: %s\n", trouble.what());
    return 1;
  }
}

void use_plain_allocators() {
  _pkg_root.xmalloc = plain_malloc;
  _pkg_root.xrealloc = plain_realloc;
  _pkg_root.xfree = plain_free;
  _shm_root.xmalloc = plain_malloc;
  _shm_root.xrealloc = plain_realloc;
  _shm_root.xfree = plain_free;
}

}  // namespace bench
