// Temporary files, folders, and files that are moved or copied to their place.
// Files are made, moved and copied here; engines only say which and where.
#include "main/storage/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "main/storage/copy_content.h"
#include "platform/base/diagnostics.h"
#include "platform/base/make_directories.h"
#include "platform/base/owner.h"

namespace {

// 61 letters: there is no Y, and names have always been drawn without it.
constexpr std::string_view name_alphabet =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXZabcdefghijklmnopqrstuvwxyz";
constexpr int name_length = 16;
// Two equal names of 16 letters are next to impossible; the tries are for a broken rand.
constexpr int name_attempts = 5;

// The process whose names were seeded last.
constinit std::atomic<pid_t> seeded_process{0};

std::string random_name() {
  std::string name;
  for (int i = 0; i < name_length; ++i) {
    name += name_alphabet[static_cast<size_t>(std::rand()) % name_alphabet.size()];
  }
  return name;
}

// "" for a file in the root.
std::string folder_of(const std::string &path) {
  return path.substr(0, path.rfind('/'));
}

int make_folder_of(const std::string &path) {
  const std::string folder = folder_of(path);
  return folder.empty() ? 0 : make_folder(folder);
}

// The file under which another one grows, in the same folder, so that a rename completes it.
struct growing_file {
  unique_fd fd;
  temporary_file name;
};

growing_file make_growing_file(const std::string &folder) {
  std::string name = folder + "/.storing-XXXXXX";
  unique_fd fd(::mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return {};
  return {std::move(fd), temporary_file(std::move(name))};
}

// A commit replaces what is there. A download does not: what is there is no older.
enum class at_target { replace, keep };

// Not every file system, kernel and sandbox knows renameat2 or its flag.
bool is_unknown_call(int error) {
  return error == EINVAL || error == ENOSYS || error == EPERM;
}

// A file that is not there is success.
int unlink_there(const std::string &path) {
  return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

// Gives a whole file its name. EEXIST when what is there is kept.
int rename_to(const std::string &from, const std::string &to, at_target what) {
  const unsigned flags = what == at_target::keep ? RENAME_NOREPLACE : 0;
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0) return 0;
  if (!is_unknown_call(errno)) return errno;
  if (what == at_target::replace) return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
  // A link fails where a name is taken, which a plain rename does not.
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  ::unlink(from.c_str());
  return 0;
}

// Without it the transfer service asks the store, so that a failure costs little.
void copy_receipt(int from, int to) {
  char bytes[256];
  const ssize_t length = ::fgetxattr(from, receipt_attribute, bytes, sizeof bytes);
  if (length > 0) ::fsetxattr(to, receipt_attribute, bytes, static_cast<size_t>(length), 0);
}

// Whether a committed_file holds it.
bool is_held_by_commit(const unique_fd &file) {
  const std::string name = "/proc/self/fd/" + std::to_string(file.get());
  const unique_fd own(::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return own && ::flock(own.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// The copy of a file whose folder is there. With `held`, it is held from before it has its name.
int copy_to(const std::string &from, const std::string &to, at_target what, committed_file *held) {
  const unique_fd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source) return errno;
  // Readers must never see half a file under its name, so it grows under another.
  growing_file copy = make_growing_file(folder_of(to));
  if (!copy.fd) return errno;
  const int error = copy_content(source.get(), copy.fd.get());
  if (error != 0) return error;
  // What replaces a file is a commit, which the store cannot have yet.
  if (what == at_target::keep) copy_receipt(source.get(), copy.fd.get());
  if (::fchmod(copy.fd.get(), storage_mode) != 0) return errno;
  if (held != nullptr) *held = committed_file(copy.fd.get());
  // Some file systems report a full disk only here. There is no fsync against a power cut: it would
  // cost every file the time of a disk write.
  if (::close(copy.fd.release()) != 0) return errno;
  const int refused = rename_to(copy.name.path(), to, what);
  if (refused == 0) copy.name.give_up();
  return refused;
}

// Makes the folder of a path and brings a file there. The transfer service removes folders that are
// empty for long, which may come between the two, once.
template <class Step>
int in_folder_of(const std::string &path, Step step) {
  int error = ENOENT;
  for (int attempt = 0; attempt < 2 && error == ENOENT; ++attempt) {
    error = make_folder_of(path);
    if (error == 0) error = step();
  }
  return error;
}

int move_into_folder(const std::string &from, const std::string &to, at_target what) {
  // While the name is still ours; a file system without modes keeps files all the same.
  ::chmod(from.c_str(), storage_mode);
  // EXDEV tells that the folders lie on two file systems; only then bytes are copied.
  int error = rename_to(from, to, what);
  if (error != EXDEV) return error;
  error = copy_to(from, to, what, nullptr);
  if (error == 0) ::unlink(from.c_str());
  return error;
}

int move_to(const std::string &from, const std::string &to, at_target what) {
  return in_folder_of(to, [&] { return move_into_folder(from, to, what); });
}

}  // namespace

void seed_names() noexcept {
  const pid_t self = ::getpid();
  if (seeded_process.exchange(self) == self) return;
  unsigned seed = 0;
  if (::getrandom(&seed, sizeof seed, 0) != static_cast<ssize_t>(sizeof seed)) {
    seed = static_cast<unsigned>(std::time(nullptr)) ^ static_cast<unsigned>(self) << 16U;
  }
  std::srand(seed);
}

int make_folder(const std::string &folder) {
  return make_directories(folder.c_str(), storage_mode, [](const char *made) {
    return ::chmod(made, storage_mode) == 0 ? 0 : errno;
  });
}

std::optional<temporary_file> make_temporary_file(const std::string &folder,
                                                  const std::string &extension) {
  // A child of fork would draw what its parent and its siblings draw.
  seed_names();
  std::string path = folder;
  int error = make_folder(folder);
  for (int attempt = 0; attempt < name_attempts && (error == 0 || error == EEXIST); ++attempt) {
    path = folder + "/" + random_name();
    if (!extension.empty()) path += "." + extension;
    const unique_fd file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, storage_mode));
    if (file) return temporary_file(std::move(path));
    error = errno;
  }
  QX_LOG(FR_LOG_ERROR, "Failed to create temporary file [%s]: %s.\n\n", path.c_str(),
         std::strerror(error));
  return std::nullopt;
}

// A deletion recognises it by the lock, the transfer service by the open file. A child of fork
// shares the lock, so it is removed rather than left to the last descriptor.
committed_file::committed_file(int fd) : fd_(::fcntl(fd, F_DUPFD_CLOEXEC, 0)) {
  if (fd_) ::flock(fd_.get(), LOCK_EX | LOCK_NB);
}

committed_file::~committed_file() {
  if (fd_) ::flock(fd_.get(), LOCK_UN);
}

int copy_file(const std::string &from, const std::string &to, committed_file &copy) {
  return in_folder_of(to, [&] { return copy_to(from, to, at_target::replace, &copy); });
}

int move_file(const std::string &from, const std::string &to) {
  return move_to(from, to, at_target::replace);
}

int move_new_file(const std::string &from, const std::string &to) {
  return move_to(from, to, at_target::keep);
}

held_file::held_file(std::string path)
    : path_(std::move(path)), fd_(::open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
  struct stat status {};
  if (!fd_ || ::fstat(fd_.get(), &status) != 0) {
    error_ = errno;
  } else if (S_ISDIR(status.st_mode)) {
    error_ = EISDIR;
  } else {
    is_being_committed_ = S_ISREG(status.st_mode) && is_held_by_commit(fd_);
  }
}

bool held_file::is_at(const std::string &path) const {
  struct stat own {};
  struct stat there {};
  return ::fstat(fd_.get(), &own) == 0 && ::lstat(path.c_str(), &there) == 0 &&
         own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

int held_file::remove() const {
  if (error_ != 0) return error_ == ENOENT ? 0 : error_;
  // A commit has put another file there since; that one was not to be deleted.
  if (!is_at(path_)) return 0;
  // Only after a rename is it certain which file this is.
  const std::string folder = folder_of(path_);
  const std::string away = folder + "/" + removing_prefix + path_.substr(folder.size() + 1);
  if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, away.c_str(), RENAME_NOREPLACE) == 0) {
    if (is_at(away)) return unlink_there(away);
    // Where a third file took the name meanwhile, the transfer service decides later.
    rename_to(away, path_, at_target::keep);
    return 0;
  }
  // Where the file system cannot rename so, the look before has to do. What a killed process left
  // under the other name is the transfer service's, and so is this file then.
  if (is_unknown_call(errno)) return unlink_there(path_);
  return errno == ENOENT ? 0 : errno;
}

int find_file(const std::string &path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return errno;
  return S_ISDIR(status.st_mode) ? EISDIR : 0;
}
