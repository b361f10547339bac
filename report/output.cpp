// Opens, completes and renames files.
// The only code of the report that writes or replaces a file.
#include "report/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "report/command.h"

namespace {

// What an ended process would leave behind; empty for nothing.
char temporary_file[PATH_MAX];

void remove_and_end(int signal) {
  if (*temporary_file != '\0') ::unlink(temporary_file);
  std::raise(signal);
}

// Whoever ignores a signal goes on to do so.
void end_cleanly_at(int signal) {
  struct sigaction now = {};
  if (::sigaction(signal, nullptr, &now) != 0 || now.sa_handler == SIG_IGN) return;
  now = {};
  now.sa_handler = remove_and_end;
  now.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
  ::sigaction(signal, &now, nullptr);
}

std::string path_of(int fd) {
  const c_string found(::realpath(("/proc/self/fd/" + std::to_string(fd)).c_str(), nullptr));
  return found ? found.get() : "";
}

bool is_same(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether the caller has the file open for this process: "/dev/fd/3" leads to the file itself.
bool is_handed_over(const struct stat &file) {
  std::error_code error;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const int fd = std::atoi(entry.path().filename().c_str());
    struct stat status {};
    const int mode = ::fcntl(fd, F_GETFL);
    if (mode >= 0 && (mode & O_PATH) == 0 && ::fstat(fd, &status) == 0 && is_same(status, file)) {
      return true;
    }
  }
  return false;
}

bool is_link(const std::string &path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool is_standard_output(const char *path) {
  return path == nullptr || std::strcmp(path, "-") == 0 || std::strcmp(path, "/dev/stdout") == 0;
}

// Where every user may leave files, another user's may be there to get hold of the report. The
// kernel refuses to open such a file to write, but not to replace it.
bool is_refused(const std::string &path, const struct stat &file) {
  struct stat folder {};
  constexpr mode_t shared = S_ISVTX | S_IWOTH;
  return ::stat((path.substr(0, path.rfind('/') + 1) + ".").c_str(), &folder) == 0 &&
         (folder.st_mode & shared) == shared && file.st_uid != ::geteuid() &&
         file.st_uid != folder.st_uid;
}

// Gives the file the owner and the group of another. A sandbox may forbid every change of owners,
// also one that would change nothing.
bool give_to_owner_of(int fd, const struct stat &other) {
  struct stat made {};
  if (::fstat(fd, &made) != 0) return false;
  return (made.st_uid == other.st_uid && made.st_gid == other.st_gid) ||
         ::fchown(fd, other.st_uid, other.st_gid) == 0;
}

// The mode that a new file gets from this process.
mode_t mode_of_new_files() {
  // No call only asks for it. No other thread runs at this time.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

void prepare_standard_streams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) continue;
    // Gets this very number, the lowest free one. Writing to standard output then still fails.
    [[maybe_unused]] const int taken =
        ::open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY);
  }
  std::signal(SIGPIPE, SIG_IGN);
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) end_cleanly_at(signal);
}

void write_text(FILE *stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
}

report_output::report_output(const char *path) {
  if (is_standard_output(path)) return;
  if (*path == '\0') throw report_trouble("The name of the file to write is empty");
  path_ = path;
  // Links are followed by the kernel, and so by its rules for links in folders like /tmp.
  const unique_fd there(::open(path, O_PATH | O_CLOEXEC));
  if (!there && errno != ENOENT) fail(errno);
  struct stat old {};
  const bool is_there = there && ::fstat(there.get(), &old) == 0;
  if (is_there && S_ISREG(old.st_mode) && !is_handed_over(old)) {
    if (std::string real = path_of(there.get()); !real.empty()) path_ = std::move(real);
    if (is_refused(path_, old)) fail(EACCES);
    open_beside(&old);
  } else if (is_there || is_link(path_)) {
    file_.reset(std::fopen(path, "ae"));
  } else {
    open_beside(nullptr);
  }
  if (!file_) fail(errno);
}

void report_output::open_beside(const struct stat *old) {
  temporary_ = path_.substr(0, path_.rfind('/') + 1) + ".spoolcap-report.XXXXXX";
  unique_fd opened(::mkostemp(temporary_.data(), O_CLOEXEC));
  if (!opened) {
    temporary_.clear();
    return;
  }
  if (temporary_.size() < sizeof temporary_file) std::strcpy(temporary_file, temporary_.c_str());
  mode_t mode = old == nullptr ? mode_of_new_files() : old->st_mode & 0777;
  // Without its group, the file must not be for another one.
  if (old != nullptr && !give_to_owner_of(opened.get(), *old)) mode &= ~0070U;
  if (::fchmod(opened.get(), mode) == 0) file_.reset(::fdopen(opened.get(), "w"));
  if (file_) {
    opened.release();
    return;
  }
  const int error = errno;
  remove_temporary();
  errno = error;
}

void report_output::remove_temporary() {
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
  forget_temporary();
}

void report_output::forget_temporary() {
  *temporary_file = '\0';
  temporary_.clear();
}

report_output::~report_output() {
  remove_temporary();
}

void report_output::fail(int error) const {
  throw report_trouble((path_.empty() ? "Standard output" : path_) +
                       " could not be written: " + std::strerror(error));
}

void report_output::commit() {
  // After an error in the middle, the stream does not say any more which one it was.
  errno = 0;
  // The flush below may succeed after an earlier write was lost.
  bool failed = std::ferror(stream()) != 0;
  const int earlier = failed ? ENOSPC : 0;
  failed = std::fflush(stream()) != 0 || failed;
  if (failed) fail(errno != 0 ? errno : earlier);
  if (!file_) {
    // Some file systems report an error only when the file is closed.
    if (std::fclose(stdout) != 0) fail(errno);
    return;
  }
  // Before the rename: after a power cut the name must not lead to an empty file.
  if (!temporary_.empty() && ::fsync(::fileno(file_.get())) != 0) fail(errno);
  if (std::fclose(file_.release()) != 0) fail(errno);
  // Written in place, so there is nothing to rename.
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) fail(errno);
  forget_temporary();
}
