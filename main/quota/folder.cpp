// Opens, makes, locks and removes; knows nothing of what the files hold.
// The only code of the engine that makes or removes a file.
#include "main/quota/folder.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "main/quota/careful_open.h"
#include "main/quota/hand_over.h"
#include "main/quota/locks.h"
#include "main/quota/settings.h"
#include "platform/base/diagnostics.h"

namespace {

// Never blocks, whatever was put in the place of a file.
constexpr int file_flags = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// The scopes that are in a quota_umask. The first sets the mask, the last restores it. If each
// remembered a mask of its own, overlapping threads would leave the process with the wrong one.
struct {
  std::mutex lock;
  int users = 0;
  mode_t old = 0;
} mask;

// Leaves ELOOP, whatever the logger did to errno.
void refuse(const std::string &path) {
  QX_LOG(FR_LOG_WARNING,
         "%s:%d:%s is passed over: not a plain file or folder, or a link that root did not make in "
         "a folder of its own\n",
         QX_LOG_SOURCE, __LINE__, path.c_str());
  errno = ELOOP;
}

// Signals do not end the wait for a lock.
bool take_lock(quota_file &file, int operation) {
  int status = 0;
  do {
    status = ::flock(file.fd.get(), operation);
  } while (status != 0 && errno == EINTR);
  file.is_locked = status == 0;
  if (!file.is_locked && errno != EWOULDBLOCK) note_lock_failure();
  return file.is_locked;
}

// Takes the lock and learns the size under it.
bool lock_and_measure(quota_file &file, int operation) {
  if (file.is_locked) return true;
  struct stat status {};
  if (!take_lock(file, operation)) return false;
  file.size = ::fstat(file.fd.get(), &status) == 0 ? status.st_size : -1;
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
  // Opened carefully: another process may have put a link in its place.
  unique_fd folder = open_entry(at, name, folder_flags);
  struct stat status {};
  if (!made || !folder || !running_as_root() || ::fstat(folder.get(), &status) != 0) return folder;
  if (is_just_made(folder.get(), status) && !give(folder.get(), whose.uid, whose.gid)) {
    folder.reset();
  }
  return folder;
}

// How much of a path is followed through any link: all of it, or as far as the quota root.
size_t followed_length(const std::string &path) {
  const quota_settings *settings = loaded_settings();
  if (settings == nullptr) return 0;
  const std::string &root = settings->quota_root;
  // The root itself and what is above it are the administrator's.
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
    // From descriptor to descriptor: what was checked cannot be exchanged behind our back.
    unique_fd next = end <= followed ? unique_fd(::openat(folder.get(), name, folder_flags))
                                     : open_entry(folder.get(), name, folder_flags);
    if (!next && errno == ENOENT && whose != nullptr) {
      next = make_folder(folder.get(), name, *whose);
    }
    if (!next && errno == ELOOP && end > followed) refuse(path.c_str());
    if (end < path.size()) path[end] = '/';
    if (next && end >= followed) hand_over_folder(next.get());
    folder = std::move(next);
  }
  return folder;
}

// Whether root may write a file that is not the owner's own: only if this is its one name. Without
// a second look, a name that was taken away since the file was opened would not count.
bool has_one_name(int folder, const char *name, const struct stat &opened) {
  uid_t uid = 0;
  gid_t gid = 0;
  if (opened.st_nlink > 1) return false;
  if ((owner_ids(&uid, &gid) == 0 && opened.st_uid == uid) || !running_as_root()) return true;
  struct stat named {};
  return ::fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_nlink == 1 &&
         named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
}

// Where a file was opened, to look at it again, and how it is called in the log; without a text it
// is refused without a word.
struct place {
  int folder;
  const char *name;
  const std::string *logged;
};

// Takes an opened file if it may be one of ours; what was not opened passes with its errno.
quota_file accept(quota_file file, const place &where, bool hand_over) {
  struct stat status {};
  if (file && ::fstat(file.fd.get(), &status) != 0) return {};
  const bool is_file = file && S_ISREG(status.st_mode);
  // A link of root's has another file behind it than its name tells.
  if (is_file &&
      (status.st_nlink <= 1 && (!hand_over || has_one_name(where.folder, where.name, status)))) {
    if (hand_over) hand_over_file(file.fd.get(), status);
    file.size = status.st_size;
    return file;
  }
  // A socket cannot be opened at all, nor can a folder be opened to write it.
  if (file || errno == ELOOP || errno == ENXIO || errno == EISDIR) {
    if (where.logged != nullptr) refuse(*where.logged);
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
  // Before the size is read, so that the size is that under the lock.
  if (file) take_lock(file, LOCK_EX | LOCK_NB);
  return accept(std::move(file), {AT_FDCWD, path, nullptr}, true);
}

bool quota_folder::open() {
  if (fd_) return true;
  fd_ = open_without_links(AT_FDCWD, path_.c_str(), folder_flags);
  // The short way refuses every link; the long one tells root's from others'.
  if (!fd_ && errno == ELOOP) fd_ = descend(path_, nullptr);
  return static_cast<bool>(fd_);
}

bool quota_folder::make(uid_t uid, gid_t gid) {
  if (open()) return true;
  if (errno != ENOENT) return false;
  const owner whose{quota_directory_mode, uid, gid};
  fd_ = descend(path_, &whose);
  return static_cast<bool>(fd_);
}

void quota_folder::hand_over() const {
  hand_over_folder(fd_.get());
}

quota_file quota_folder::open_to_read(const char *name, bool hand_over) const {
  const place where{fd_.get(), name, nullptr};
  unique_fd opened = open_without_links(fd_.get(), name, O_RDONLY | file_flags);
  if (!opened && errno == ELOOP) opened = open_carefully(fd_.get(), name, O_RDONLY | file_flags);
  return accept({std::move(opened)}, where, hand_over);
}

unique_fd quota_folder::create_new(const char *name) const {
  // O_EXCL also refuses a link in place of the name.
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
  return accept(std::move(file), {fd_.get(), name, &path}, true);
}

quota_file quota_folder::create(const char *name) const {
  quota_file mark{create_new(name), 0, true};
  if (!mark && errno != EEXIST) return {};
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return {};
  if (mark) {
    if (running_as_root()) give(mark.fd.get(), uid, gid);
    return mark;
  }
  return accept({open_entry(fd_.get(), name, O_RDONLY | file_flags)}, {fd_.get(), name, nullptr},
                true);
}

int quota_folder::has(const char *name) const {
  struct stat status {};
  if (fd_) {
    const int found = ::fstatat(fd_.get(), name, &status, AT_SYMLINK_NOFOLLOW);
    return found == 0 || errno != ENOENT ? 1 : 0;
  }
  // Never through a link: what is behind one of its owner's might not even answer.
  std::string path;
  path.reserve(path_.size() + 1 + std::strlen(name));  // each update comes here
  path.append(path_).append("/").append(name);
  if (open_without_links(AT_FDCWD, path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) return 1;
  if (errno != ELOOP) return errno == ENOENT ? 0 : 1;
  const unique_fd folder = descend(path_, nullptr);
  const bool absent =
      folder ? ::fstatat(folder.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT
             : errno == ENOENT;
  return absent ? 0 : 1;
}

int quota_folder::remove(const char *name) const {
  return ::unlinkat(fd_.get(), name, 0);
}
