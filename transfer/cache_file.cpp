// Opens cached files, and removes one only if it is still the same file.
// The only code of the service that removes a file of a host.
#include "transfer/cache_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/base/diagnostics.h"
#include "transfer/receipt.h"

namespace {

bool same_file(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool same_time(const timespec &one, const timespec &other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

// Never over another file: a host may have put one there a moment ago.
int rename_new(int folder, const std::string &from, const std::string &to) {
  return ::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE);
}

}  // namespace

std::optional<cache_file> cache_file::open(int folder, std::string name) {
  // A fifo would keep a blocking open waiting.
  unique_fd fd(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return cache_file(folder, std::move(name), std::move(fd), status);
}

static std::optional<double> birth_of(int fd) {
  struct statx status {};
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &status) != 0 ||
      (status.stx_mask & STATX_BTIME) == 0) {
    return std::nullopt;
  }
  return static_cast<double>(status.stx_btime.tv_sec) +
         static_cast<double>(status.stx_btime.tv_nsec) / 1e9;
}

double cache_file::made_at() const {
  return birth_of(fd_.get()).value_or(last_use());
}

bool cache_file::knows_birth() const {
  return birth_of(fd_.get()).has_value();
}

double cache_file::last_use() const {
  return static_cast<double>(status_.st_mtim.tv_sec) +
         static_cast<double>(status_.st_mtim.tv_nsec) / 1e9;
}

// The lease is given only while no other process has the file open. One that opens it then waits.
removal cache_file::remove() {
  if (::fcntl(fd_.get(), F_SETLEASE, F_WRLCK) != 0) {
    return errno == EAGAIN ? removal::in_use : removal::failed;
  }
  const removal result = remove_leased();
  // Giving the lease back must not hide why the removal failed.
  const int error = errno;
  ::fcntl(fd_.get(), F_SETLEASE, F_UNLCK);
  errno = error;
  return result;
}

removal cache_file::remove_leased() {
  struct stat now {};
  if (::fstat(fd_.get(), &now) != 0) return removal::failed;
  // A host notes its use in the time of last write, before it opens the file.
  if (!same_time(now.st_mtim, status_.st_mtim)) return removal::in_use;

  // A host may have given the name to a new file, which is not to be moved without need.
  if (::fstatat(folder_, name_.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? removal::changed : removal::failed;
  }
  if (!same_file(now, status_)) return removal::changed;
  // Only after a rename is it certain which file this is.
  const std::string away = removing_prefix + name_;
  if (rename_new(folder_, name_, away) != 0) {
    return errno == ENOENT ? removal::changed : removal::failed;
  }
  if (::fstatat(folder_, away.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) return removal::failed;
  // A host that found the file in between has noted its use, and is about to open it.
  const bool is_same = same_file(now, status_);
  // Before it is removed for good, its name goes back if anything is doubtful.
  if (!is_same || !same_time(now.st_mtim, status_.st_mtim)) {
    put_back(folder_, away);
    return is_same ? removal::in_use : removal::changed;
  }
  return ::unlinkat(folder_, away.c_str(), 0) == 0 ? removal::removed : removal::failed;
}

void put_back(int folder, const std::string &removing_name, bool tell) {
  const std::string name = removing_name.substr(std::strlen(removing_prefix));
  if (rename_new(folder, removing_name, name) == 0 || errno != EEXIST) return;
  // Either of the two may be newer: a download may have taken the name.
  const auto file = cache_file::open(folder, removing_name);
  // With a receipt nothing is lost: the store has what is removed here.
  if (file && read_receipt(file->fd())) {
    ::unlinkat(folder, removing_name.c_str(), 0);
  } else if (tell) {
    QX_LOG(FR_LOG_WARNING,
           "Cached file [%s] stays: its name is taken, and no receipt says that "
           "the store has it.",
           removing_name.c_str());
  }
}
