// What a bare std::getline loop over a file takes: usage getline_loop FILE. Prints the nanoseconds
// of processor time.
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>

namespace {

long processor_time() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec * 1000000000L + now.tv_nsec;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return 2;
  const long start = processor_time();
  std::ifstream in(argv[1]);
  size_t bytes = 0;
  for (std::string line; std::getline(in, line);) bytes += line.size() + 1;
  std::cout << processor_time() - start << "\n";
  return bytes != 0 ? 0 : 1;
}
