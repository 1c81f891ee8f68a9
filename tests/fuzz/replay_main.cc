// Runs a harness on kept inputs, where there is no libFuzzer: each argument is a file or a
// directory of files. Fails if there is nothing to run.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  std::set<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      inputs.insert(argv[i]);
      continue;
    }
    for (const auto &entry : std::filesystem::directory_iterator(argv[i]))
      if (entry.is_regular_file()) inputs.insert(entry.path());
  }
  for (const auto &input : inputs) {
    std::ifstream file(input, std::ios::binary);
    if (!file) {
      fprintf(stderr, "%s can't be read\n", input.c_str());
      return 1;
    }
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    // Told first, so that the last line before a crash names its input.
    printf("%s\n", input.filename().c_str());
    fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  }
  printf("%zu inputs\n", inputs.size());
  return inputs.empty() ? 1 : 0;
}
