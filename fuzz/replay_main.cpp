// Gives a target each file of the folders named, where no fuzzer is at hand to do it.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/fuzz.h"

int main(int argc, char **argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(file), {}};
      check(bytes);
      ++replayed;
    }
  }
  return replayed > 0 ? 0 : 1;
}
