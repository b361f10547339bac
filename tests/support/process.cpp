#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
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

std::vector<std::string> child_environment(const process_options &options) {
  std::vector<std::string> result;
  for (char **entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!options.environment.contains(text.substr(0, text.find('=')))) result.push_back(text);
  }
  for (const auto &[name, value] : options.environment) {
    if (value) result.push_back(std::string(name).append("=").append(*value));
  }
  return result;
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> result;
  result.reserve(texts.size() + 1);
  for (const std::string &text : texts) result.push_back(const_cast<char *>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

// What the child needs, made before the fork: it allocates nothing after it.
struct launch {
  std::vector<char *> argv, environment;
  int in, out, err;  // none: it has those of this process
  pid_t parent;
};

[[noreturn]] void become(const launch &plan) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != plan.parent) _exit(127);  // it died before the line above
  for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (plan.in >= 0) {
    setsid();
    dup2(plan.in, STDIN_FILENO);
    dup2(plan.out, STDOUT_FILENO);
    dup2(plan.err, STDERR_FILENO);
  }
  execvpe(plan.argv[0], plan.argv.data(), plan.environment.data());
  const int cause = errno;
  dprintf(STDERR_FILENO, "cannot start %s: %s\n", plan.argv[0], std::strerror(cause));
  _exit(127);
}

}  // namespace

background_process::background_process(const std::vector<std::string> &argv,
                                       const process_options &options) {
  const std::vector<std::string> environment = child_environment(options);
  unique_fd in;
  if (!options.inherit_output) {
    in = checked(open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null");
    const auto writable = [&](const char *name) {
      const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
      return checked(options.log.empty() ? memfd_create(name, MFD_CLOEXEC)
                                         : open(options.log.c_str(), flags, 0600),
                     name);
    };
    out_ = writable("standard output");
    err_ = writable("standard error");
  }
  const launch plan{pointers(argv), pointers(environment), in.get(), out_.get(), err_.get(),
                    getpid()};
  pid_ = fork();
  if (pid_ == 0) become(plan);
  pidfd_ = checked(pid_ < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)), argv[0]);
}

background_process::background_process(const std::function<bool()> &work) : pid_(fork()) {
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(work() ? 0 : 1);
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
  using clock = std::chrono::steady_clock;
  const auto deadline = clock::now() + limit;
  while (!result_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
    pollfd ended{pidfd_.get(), POLLIN, 0};
    const int ready = poll(&ended, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
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
