#include <cerrno>
#include <mutex>
#include <string>

#include "make_directories.h"
#include "quota/store.h"

namespace {

bool running_as_root() {
  return ::getuid() == 0;
}

// Who is inside a quota_umask. The first sets the mask, the last restores it: with a memory of its
// own for each, overlapping threads would leave the process with the wrong one.
struct {
  std::mutex lock;
  int users = 0;
  mode_t old = 0;
} mask;

std::string mark_of(const char *path) {
  return std::string(path) + ".dirty";
}

}  // namespace

quota_umask::quota_umask() {
  const std::lock_guard guard(mask.lock);
  if (mask.users++ == 0) mask.old = ::umask(007);
}

quota_umask::~quota_umask() {
  const std::lock_guard guard(mask.lock);
  if (--mask.users == 0) ::umask(mask.old);
}

void give_to_owner(int fd) {
  uid_t uid = 0;
  gid_t gid = 0;
  if (!running_as_root() || owner_ids(&uid, &gid) != 0) return;
  // A file that stays root's is still a good file.
  [[maybe_unused]] const int given = ::fchown(fd, uid, gid);
}

int make_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid) {
  if (path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const int error = make_directories(path, mode, [=](const char *made) {
    return running_as_root() && ::chown(made, uid, gid) != 0 ? errno : 0;
  });
  errno = error;
  return error == 0 ? 0 : -1;
}

int is_dirty(const char *path, int at) {
  return ::faccessat(at, mark_of(path).c_str(), F_OK, 0) == 0 ? 1 : 0;
}

int set_dirty(const char *path, int at) {
  const unique_fd mark(::openat(at, mark_of(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                                quota_file_mode));
  if (!mark) return -1;
  // Without an owner to give it to the mark still stays: the file it stands for is no better.
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return -1;
  give_to_owner(mark.get());
  return 0;
}

int unset_dirty(const char *path, int at) {
  return ::unlinkat(at, mark_of(path).c_str(), 0);
}
