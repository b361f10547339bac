#include "tests/support/process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "platform/base/deadline.h"

namespace support {
namespace {

unique_fd checked(int fd, const std::string &what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return unique_fd(fd);
}

std::string content(const unique_fd &fd) {
  std::string text;
  char buffer[65536];
  off_t at = 0;
  // pread leaves the offset alone, which the program's own children may still share.
  for (ssize_t n; fd && (n = pread(fd.get(), buffer, sizeof buffer, at)) > 0; at += n) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  return text;
}

// In the child.
[[noreturn]] void become(const std::vector<std::string> &argv, const process_options &options,
                         int out, int err) {
  for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (!options.inherit_output) {
    setsid();
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
  }
  for (const auto &[name, value] : options.environment) {
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }
  std::vector<char *> pointers;
  pointers.reserve(argv.size() + 1);
  for (const std::string &word : argv) pointers.push_back(const_cast<char *>(word.c_str()));
  pointers.push_back(nullptr);
  execvp(pointers[0], pointers.data());
  dprintf(STDERR_FILENO, "cannot start %s: %s\n", pointers[0], std::strerror(errno));
  _exit(127);
}

}  // namespace

background_process::background_process(const std::vector<std::string> &argv,
                                       const process_options &options) {
  if (!options.inherit_output) {
    const auto writable = [&](const char *name) {
      const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
      return checked(options.log.empty() ? memfd_create(name, MFD_CLOEXEC)
                                         : open(options.log.c_str(), flags, 0600),
                     name);
    };
    out_ = writable("standard output");
    err_ = writable("standard error");
  }
  start([&] { become(argv, options, out_.get(), err_.get()); });
}

background_process::background_process(const std::function<bool()> &work) {
  start([&] { _exit(work() ? 0 : 1); });
}

void background_process::start(const std::function<void()> &child) {
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // it died before the line above
    child();
  }
  pidfd_ = checked(pid_ < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)), "fork");
}

background_process::~background_process() {
  if (result_) return;
  kill(SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool background_process::running() {
  return !wait(std::chrono::milliseconds(0));
}

void background_process::kill(int signal) const {
  if (!result_) ::kill(pid_, signal);
}

std::optional<process_result> background_process::wait(std::chrono::milliseconds limit) {
  const deadline end(deadline::clock::now() + limit);
  while (!result_) {
    if (!wait_ready(pidfd_.get(), POLLIN, &end)) return std::nullopt;
    int status = 0;
    waitpid(pid_, &status, 0);
    result_ = {content(out_), content(err_)};
    if (WIFSIGNALED(status)) result_->signal = WTERMSIG(status);
    if (WIFEXITED(status)) result_->status = WEXITSTATUS(status);
  }
  return result_;
}

process_result run_process(const std::vector<std::string> &argv, const process_options &options) {
  const auto result = background_process(argv, options).wait(options.limit);
  if (!result) throw std::runtime_error(argv[0] + " takes too long");
  return *result;
}

int run_forked(const std::function<bool()> &work) {
  return background_process(work).wait(std::chrono::minutes(2)).value().status;
}

}  // namespace support
