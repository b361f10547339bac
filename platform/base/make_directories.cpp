// Makes a directory and all above it.
// Follows links; the quota engine, which must not, has a way of its own.
#include "platform/base/make_directories.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

namespace {

// Follows links: an administrator may have put a folder elsewhere. errno has the reason for false.
bool is_directory(const char *path) {
  struct stat status {};
  if (::stat(path, &status) != 0) return false;
  if (S_ISDIR(status.st_mode)) return true;
  errno = ENOTDIR;
  return false;
}

// 0, or the error that keeps this one directory from being there.
int make_directory(const char *path, mode_t mode, const std::function<int(const char *)> &finish) {
  if (is_directory(path)) return 0;
  if (errno == ENOTDIR) return ENOTDIR;
  if (::mkdir(path, mode) != 0) {
    // Another process may have been faster, and the directory is then there as wanted.
    if (errno != EEXIST) return errno;
    return is_directory(path) ? 0 : EEXIST;
  }
  return finish(path);
}

}  // namespace

int make_directories(const char *path, mode_t mode,
                     const std::function<int(const char *)> &finish) {
  // Nearly always the whole path exists, so one look suffices.
  if (is_directory(path)) return 0;
  std::string missing = path;
  for (size_t slash = missing.find('/', 1); slash != missing.npos;
       slash = missing.find('/', slash + 1)) {
    missing[slash] = '\0';
    // From the top down: a directory can only be made in one that is there.
    const int error = make_directory(missing.c_str(), mode, finish);
    if (error != 0) return error;
    missing[slash] = '/';
  }
  // A path with a slash at its end had its last component made by the loop.
  return missing.ends_with('/') ? 0 : make_directory(missing.c_str(), mode, finish);
}
