// Opens, makes and hands over; knows nothing of what the files hold.
#include "main/quota/folder.h"

#include <linux/openat2.h>
#include <sys/syscall.h>

#include <mutex>

#include "main/quota/settings.h"
#include "platform/base/diagnostics.h"
#include "platform/base/errors.h"

namespace {

constexpr int folder_flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr off_t longest_record = 31;
// Never blocks, whatever was put in the place of a file.
constexpr int file_flags = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

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

void log_refusal(const std::string &path) {
  QX_LOG(FR_LOG_WARNING,
         "%s:%d:%s is passed over: not a plain file or folder, or a link that root did not make in "
         "a folder of its own\n",
         QX_LOG_SOURCE, __LINE__, path.c_str());
}

// Opens a path on which no component is a link, in one call. ELOOP where one is, or where the
// kernel does not offer the call: the careful way then finds out.
unique_fd open_without_links(int at, const char *path, int flags) {
  open_how how{};
  how.flags = static_cast<__u64>(flags);
  how.resolve = RESOLVE_NO_SYMLINKS;
  unique_fd opened(static_cast<int>(::syscall(SYS_openat2, at, path, &how, sizeof how)));
  if (!opened && (errno == ENOSYS || errno == EPERM)) errno = ELOOP;
  return opened;
}

bool is_link(int folder, const char *name, struct stat &status) {
  return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

// Only root can have made the link, and nobody else can put another one in its place.
bool is_links_maker_root(int folder, const struct stat &link) {
  struct stat around {};
  return link.st_uid == 0 && ::fstat(folder, &around) == 0 && around.st_uid == 0 &&
         (around.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens one entry of a folder. ELOOP for a link that is refused.
unique_fd open_entry(int folder, const char *name, int flags) {
  unique_fd opened(::openat(folder, name, flags | O_NOFOLLOW));
  if (opened || (errno != ELOOP && errno != ENOTDIR)) return opened;
  const int error = errno;
  struct stat status {};
  if (is_link(folder, name, status) && is_links_maker_root(folder, status)) {
    return unique_fd(::openat(folder, name, flags));
  }
  errno = S_ISLNK(status.st_mode) ? ELOOP : error;
  return {};
}

// Gives to its owner what root made and still owns. False, with errno, when the system refuses.
bool give(int fd, uid_t uid, gid_t gid) {
  return ::fchownat(fd, "", uid, gid, AT_EMPTY_PATH) == 0;
}

void give_to_owner(int fd) {
  uid_t uid = 0;
  gid_t gid = 0;
  // A file that stays root's is still a good file.
  if (owner_ids(&uid, &gid) == 0) give(fd, uid, gid);
}

// A folder of root's that only lacks its owner. One with another mode is an administrator's.
bool is_left_behind_folder(const struct stat &status) {
  return status.st_uid == 0 && (status.st_mode & 07777) == quota_directory_mode;
}

// A quota file or mark of root's that only lacks its owner.
bool is_left_behind_file(const struct stat &status) {
  return status.st_uid == 0 && status.st_gid == 0 && status.st_size <= longest_record &&
         (status.st_mode & 07777U & ~quota_file_mode) == 0;
}

void hand_over_folder(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) == 0 && is_left_behind_folder(status) && running_as_root()) {
    give_to_owner(fd);
  }
}

bool take_lock(quota_file &file, int operation) {
  file.is_locked = retry_interrupted([&] { return ::flock(file.fd.get(), operation); }) == 0;
  return file.is_locked;
}

// Takes the lock and learns the size under it.
bool lock_and_measure(quota_file &file, int operation) {
  if (file.is_locked) return true;
  struct stat status {};
  if (!take_lock(file, operation) || ::fstat(file.fd.get(), &status) != 0) return false;
  file.size = status.st_size;
  return true;
}

struct owner {
  mode_t mode;
  uid_t uid;
  gid_t gid;
};

// Makes one folder and opens it.
unique_fd make_folder(int at, const char *name, const owner &whose) {
  // Another process may have been faster; the folder is then there as wanted.
  const bool made = ::mkdirat(at, name, whose.mode) == 0;
  if (!made && errno != EEXIST) return {};
  unique_fd folder = open_entry(at, name, folder_flags);
  struct stat status {};
  if (!made || !folder || !running_as_root() || ::fstat(folder.get(), &status) != 0) return folder;
  // One that is not root's any more was put there by somebody else meanwhile.
  if (status.st_uid == 0 && !give(folder.get(), whose.uid, whose.gid)) folder.reset();
  return folder;
}

// How much of a path is followed through any link: all of it, or as far as the quota root.
size_t followed_length(const std::string &path) {
  const quota_settings *settings = loaded_settings();
  if (settings == nullptr) return 0;
  const std::string &root = settings->quota_root;
  const bool below = path.starts_with(root) && path.size() > root.size() &&
                     (root.ends_with('/') || path[root.size()] == '/');
  return below ? root.size() : path.size();
}

// Goes down a path component by component; what is missing is made when `whose` says how.
unique_fd descend(std::string path, const owner *whose) {
  const size_t followed = followed_length(path);
  unique_fd folder(::open(path.starts_with('/') ? "/" : ".", folder_flags));
  size_t end = 0;
  for (size_t start = 0; folder && start < path.size(); start = end + 1) {
    end = std::min(path.find('/', start), path.size());
    if (end == start) continue;
    path[end] = '\0';  // at the end of the text this is what stands there
    const char *name = path.data() + start;
    unique_fd next = end <= followed ? unique_fd(::openat(folder.get(), name, folder_flags))
                                     : open_entry(folder.get(), name, folder_flags);
    if (!next && errno == ENOENT && whose != nullptr) {
      next = make_folder(folder.get(), name, *whose);
    }
    if (!next && errno == ELOOP && end > followed) log_refusal(path.c_str());
    if (end < path.size()) path[end] = '/';
    if (next && end >= followed) hand_over_folder(next.get());
    folder = std::move(next);
  }
  return folder;
}

// Takes an opened file if it may be one of ours; what was not opened passes with its errno.
// `path` names it in the log, when that is wanted.
quota_file accept(quota_file file, const std::string *path) {
  struct stat status {};
  if (file && ::fstat(file.fd.get(), &status) != 0) return {};
  if (file && S_ISREG(status.st_mode) && status.st_nlink <= 1) {
    if (is_left_behind_file(status) && running_as_root()) give_to_owner(file.fd.get());
    file.size = status.st_size;
    return file;
  }
  // A socket cannot be opened at all.
  if (file || errno == ELOOP || errno == ENXIO) {
    if (path != nullptr) log_refusal(*path);
    errno = ELOOP;
  }
  return {};
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

bool try_lock(quota_file &file) {
  return lock_and_measure(file, LOCK_EX | LOCK_NB);
}

bool wait_for_lock(quota_file &file) {
  return lock_and_measure(file, LOCK_EX);
}

int make_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid) {
  errno = EINVAL;
  if (path == nullptr) return -1;
  const owner whose{mode, uid, gid};
  if (!descend(path, &whose)) return -1;
  errno = 0;
  return 0;
}

quota_file open_quota_file(const char *path) {
  quota_file file{open_without_links(AT_FDCWD, path, O_RDWR | file_flags)};
  if (file) take_lock(file, LOCK_EX | LOCK_NB);
  return accept(std::move(file), nullptr);
}

bool quota_folder::open() {
  if (fd_) return true;
  fd_ = open_without_links(AT_FDCWD, path_.c_str(), folder_flags);
  if (!fd_ && errno == ELOOP) fd_ = descend(path_, nullptr);
  if (fd_) hand_over_folder(fd_.get());
  return static_cast<bool>(fd_);
}

bool quota_folder::make(uid_t uid, gid_t gid) {
  if (open()) return true;
  if (errno != ENOENT) return false;
  const owner whose{quota_directory_mode, uid, gid};
  fd_ = descend(path_, &whose);
  return static_cast<bool>(fd_);
}

quota_file quota_folder::open_to_read(const char *name) const {
  unique_fd opened = open_without_links(fd_.get(), name, O_RDONLY | file_flags);
  if (opened || errno != ELOOP) return accept({std::move(opened)}, nullptr);
  // A link on the way: each of the two components, the account below and its file, is looked at.
  const std::string text = name;
  const size_t slash = text.find('/');
  if (slash == text.npos) {
    return accept({open_entry(fd_.get(), name, O_RDONLY | file_flags)}, nullptr);
  }
  const unique_fd below = open_entry(fd_.get(), text.substr(0, slash).c_str(), folder_flags);
  if (!below) return {};
  return accept({open_entry(below.get(), name + slash + 1, O_RDONLY | file_flags)}, nullptr);
}

unique_fd quota_folder::create_new(const char *name) const {
  const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | file_flags;
  return unique_fd(::openat(fd_.get(), name, flags, quota_file_mode));
}

quota_file quota_folder::open_to_write(const char *name) const {
  quota_file file{open_entry(fd_.get(), name, O_RDWR | file_flags)};
  if (!file && errno == ENOENT) {
    // Exactly one of several processes creates it; the others find it there.
    file.fd = create_new(name);
    file.created = static_cast<bool>(file);
    if (file && running_as_root()) give_to_owner(file.fd.get());
    if (!file && errno == EEXIST) file.fd = open_entry(fd_.get(), name, O_RDWR | file_flags);
  }
  if (file) take_lock(file, LOCK_EX | LOCK_NB);
  const std::string path = path_ + "/" + name;
  return accept(std::move(file), &path);
}

int quota_folder::create(const char *name) const {
  const unique_fd made = create_new(name);
  if (!made && errno != EEXIST) return -1;
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return -1;
  if (made) {
    if (running_as_root()) give(made.get(), uid, gid);
    return 0;
  }
  // Another user's mark cannot be opened and serves all the same.
  const std::string path = path_ + "/" + name;
  const quota_file there = accept({open_entry(fd_.get(), name, O_RDONLY | file_flags)}, &path);
  return there || errno == EACCES ? 0 : -1;
}

int quota_folder::has(const char *name) const {
  struct stat status {};
  const int found =
      fd_ ? ::fstatat(fd_.get(), name, &status, AT_SYMLINK_NOFOLLOW)
          : ::fstatat(AT_FDCWD, (path_ + "/" + name).c_str(), &status, AT_SYMLINK_NOFOLLOW);
  return found == 0 || errno != ENOENT ? 1 : 0;
}

int quota_folder::remove(const char *name) const {
  return ::unlinkat(fd_.get(), name, 0);
}
