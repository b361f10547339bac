// What the fuzz targets share. A target takes any bytes and requires what must hold for all of
// them.
#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/owner.h"

// What a target does with the bytes of one input.
void check(std::string_view bytes);

// Ends the process, as a fault would, where a property does not hold.
#define REQUIRE(property)                                                              \
  do {                                                                                 \
    if (property) break;                                                               \
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #property); \
    std::abort();                                                                      \
  } while (false)

namespace fuzz {

// A file in memory, with a path for whoever opens it by name.
class memory_file {
 public:
  // Leaves the descriptor at the start of the new content.
  void assign(std::string_view content) const {
    REQUIRE(::ftruncate(fd(), 0) == 0 && ::lseek(fd(), 0, SEEK_SET) == 0);
    const ssize_t written = ::pwrite(fd(), content.data(), content.size(), 0);
    REQUIRE(written == static_cast<ssize_t>(content.size()));
  }
  std::string content() const {
    std::string text(static_cast<size_t>(::lseek(fd(), 0, SEEK_END)), '\0');
    REQUIRE(::pread(fd(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    return text;
  }
  int fd() const { return fd_.get(); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd()); }

 private:
  unique_fd fd_{::memfd_create("fuzz", MFD_CLOEXEC)};
};

// The lines that fgets gives with a buffer of this size, each as the C text that it is.
inline std::vector<std::string> lines_of(std::string_view content, size_t buffer_size = SIZE_MAX) {
  std::vector<std::string> lines;
  while (!content.empty()) {
    const size_t newline = std::min(content.find('\n'), content.size() - 1);
    const std::string line(content.substr(0, std::min(newline + 1, buffer_size - 1)));
    content.remove_prefix(line.size());
    lines.emplace_back(line.c_str());
  }
  return lines;
}

}  // namespace fuzz

#endif
