// Copies a file in the cheapest way that its file systems have.
// Knows descriptors only; names and folders are for files.cpp.
#include "main/storage/copy_content.h"

#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace {

// Each moves up to `most` bytes from one file's position to the other's. Returns the number, 0 at
// the end of the source, or -1 with errno.
using way_to_copy = ssize_t (*)(int from, int to, size_t most);

// Enough that calls cost nothing, and done soon enough for a stop.
constexpr size_t most_at_once = 64U << 20;

// Shares the blocks, or copies on the server, where the file system can.
ssize_t within_file_system(int from, int to, size_t most) {
  return ::copy_file_range(from, nullptr, to, nullptr, std::min(most, most_at_once), 0);
}

ssize_t between_file_systems(int from, int to, size_t most) {
  return ::sendfile(to, from, nullptr, std::min(most, most_at_once));
}

ssize_t by_hand(int from, int to, size_t most) {
  char buffer[64 * 1024];
  const ssize_t got = ::read(from, buffer, std::min(most, sizeof buffer));
  for (ssize_t written = 0; written < got;) {
    const ssize_t step = ::write(to, buffer + written, static_cast<size_t>(got - written));
    if (step < 0 && errno != EINTR) return -1;
    if (step > 0) written += step;
  }
  return got;
}

// Whether another way may do what this one could not.
bool is_refusal(int error) {
  // EPERM is what a sandbox that does not know a system call says of it.
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP ||
         error == EPERM;
}

}  // namespace

int copy_content(int from, int to, const std::atomic<bool> *stop) {
  struct stat status {};
  if (::fstat(from, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  // The size at the start is the end: a source that grows would otherwise never be done.
  auto left = static_cast<size_t>(status.st_size);
  for (const way_to_copy copy : {within_file_system, between_file_systems, by_hand}) {
    ssize_t moved = 0;
    while (left > 0) {
      if (stop != nullptr && *stop) return ECANCELED;
      moved = copy(from, to, left);
      if (moved < 0 && errno == EINTR) continue;
      if (moved <= 0) break;
      left -= static_cast<size_t>(moved);
    }
    if (left == 0) return 0;
    // Some kernels call a file ended that they cannot copy in this way, so that only the last way
    // is believed.
    if (moved < 0 && (copy == by_hand || !is_refusal(errno))) return errno;
  }
  return EIO;
}
