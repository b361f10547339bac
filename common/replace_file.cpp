// Writes a file beside its place, and renames it when it is whole.
// Nothing is synced: after a power cut the old file, or an empty one, may be there.
#include "common/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <spoolcap/utils.h>
#include "platform/base/owner.h"

int replace_file(const std::string &path, const std::string &text, mode_t mode) {
  const std::string beside = path + ".new";
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
  const unique_fd file(::open(beside.c_str(), flags, mode));
  if (!file) return errno;
  const int length = static_cast<int>(text.size());
  errno = EIO;  // for a write that ends early without an error
  if (::fchmod(file.get(), mode) != 0 || write_safe(file.get(), text.data(), length) != length ||
      std::rename(beside.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(beside.c_str());
    return error;
  }
  return 0;
}
