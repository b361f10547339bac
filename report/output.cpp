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

#include "report/command.h"

namespace {

// The file that a path leads to through links; the path itself when that has no name, or is not
// there.
std::string resolved(const char *path) {
  const c_string found(::realpath(path, nullptr));
  return found ? found.get() : path;
}

// A file takes the place of a regular file or of nothing. What is still a link after it was
// resolved leads to nothing, or to a file without a name, as a descriptor may be.
bool is_kept_in_place(const std::string &path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool is_standard_output(const char *path) {
  return path == nullptr || std::strcmp(path, "-") == 0 || std::strcmp(path, "/dev/stdout") == 0;
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
}

report_output::report_output(const char *path) {
  if (is_standard_output(path)) return;
  if (*path == '\0') throw report_trouble("The name of the file to write is empty");
  // A link stays a link: the file that it leads to is replaced.
  path_ = resolved(path);
  if (is_kept_in_place(path_)) {
    file_.reset(std::fopen(path_.c_str(), "we"));
  } else {
    open_beside();
  }
  if (!file_) fail(errno);
}

void report_output::open_beside() {
  const size_t name = path_.rfind('/') + 1;
  // A hidden name beside the file, which a rename can complete.
  temporary_ = path_.substr(0, name) + "." + path_.substr(name) + ".XXXXXX";
  unique_fd opened(::mkostemp(temporary_.data(), O_CLOEXEC));
  if (!opened) {
    temporary_.clear();
    return;
  }
  // mkostemp makes it for its owner alone; readers of the report may be others.
  ::fchmod(opened.get(), mode_of_new_files());
  file_.reset(::fdopen(opened.get(), "w"));
  if (file_) opened.release();
}

report_output::~report_output() {
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
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
  temporary_.clear();
}
