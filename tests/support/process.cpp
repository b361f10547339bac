#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace support {
namespace {

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

unique_fd memory_file(const char *name) {
  unique_fd fd(memfd_create(name, MFD_CLOEXEC));
  if (!fd) fail("memfd_create");
  return fd;
}

unique_fd input_file(const std::string &text) {
  unique_fd fd = memory_file("input");
  if (write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    fail("write of a program's input");
  }
  lseek(fd.get(), 0, SEEK_SET);
  return fd;
}

std::string content(const unique_fd &fd) {
  std::string text;
  char buffer[65536];
  off_t at = 0;
  // pread leaves the offset alone, which the running program shares.
  for (ssize_t n; fd && (n = pread(fd.get(), buffer, sizeof buffer, at)) > 0; at += n) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  return text;
}

std::vector<std::string> child_environment(const process_options &options) {
  std::vector<std::string> result;
  const auto names = [](const std::string &entry, const std::string &name) {
    return entry.starts_with(name) && entry[name.size()] == '=';
  };
  for (char **entry = environ; *entry != nullptr; ++entry) {
    bool dropped = false;
    for (const auto &name : options.without) dropped |= names(*entry, name);
    for (const auto &[name, value] : options.environment) dropped |= names(*entry, name);
    if (!dropped) result.emplace_back(*entry);
  }
  for (const auto &[name, value] : options.environment) {
    result.push_back(std::string(name).append("=").append(value));
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

// What the child needs, made before the fork: after it only async-signal-safe calls are allowed.
struct launch {
  std::string program;
  std::vector<char *> argv, environment;
  const char *folder;
  int in, out, err;  // -1 leaves the standard one
  bool own_session;
  int signal_when_orphaned;
  pid_t parent;
};

[[noreturn]] void become(const launch &plan) {
  if (plan.signal_when_orphaned != 0) {
    prctl(PR_SET_PDEATHSIG, plan.signal_when_orphaned);
    if (getppid() != plan.parent) _exit(127);  // it died before the line above
  }
  if (plan.own_session) setsid();
  for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (plan.in >= 0) dup2(plan.in, STDIN_FILENO);
  if (plan.out >= 0) dup2(plan.out, STDOUT_FILENO);
  if (plan.err >= 0) dup2(plan.err, STDERR_FILENO);
  if (*plan.folder == '\0' || chdir(plan.folder) == 0) {
    execve(plan.program.c_str(), plan.argv.data(), plan.environment.data());
  }
  const int cause = errno;
  dprintf(STDERR_FILENO, "cannot start %s: %s\n", plan.program.c_str(), std::strerror(cause));
  _exit(127);
}

}  // namespace

std::filesystem::path find_program(const std::string &name) {
  if (name.find('/') != std::string::npos) return name;
  const char *variable = std::getenv("PATH");
  std::string folders = variable != nullptr ? variable : "";
  folders += ":/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin";
  for (std::size_t from = 0; from <= folders.size();) {
    const std::size_t to = std::min(folders.find(':', from), folders.size());
    std::filesystem::path candidate = std::filesystem::path(folders.substr(from, to - from)) / name;
    if (to > from && access(candidate.c_str(), X_OK) == 0) return candidate;
    from = to + 1;
  }
  return {};
}

background_process::background_process(const std::vector<std::string> &argv,
                                       const process_options &options) {
  const std::string program = find_program(argv.at(0)).string();
  if (program.empty()) throw std::runtime_error("there is no program " + argv[0]);
  const std::vector<std::string> environment = child_environment(options);

  unique_fd in, log;
  if (!options.inherit_output || !options.input.empty()) in = input_file(options.input);
  if (!options.log.empty()) {
    log = unique_fd(open(options.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!log) fail("open " + options.log.string());
  } else if (!options.inherit_output) {
    out_ = memory_file("stdout");
    err_ = memory_file("stderr");
  }
  const launch plan{program,
                    pointers(argv),
                    pointers(environment),
                    options.folder.c_str(),
                    in.get(),
                    log ? log.get() : out_.get(),
                    log ? log.get() : err_.get(),
                    options.own_session,
                    options.signal_when_orphaned,
                    getpid()};
  pid_ = fork();
  if (pid_ < 0) fail("fork");
  if (pid_ == 0) become(plan);
  pidfd_ = unique_fd(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  if (!pidfd_) {
    const int cause = errno;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    errno = cause;
    fail("pidfd_open");
  }
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
    if (waitpid(pid_, &status, 0) != pid_) fail("waitpid");
    result_.emplace();
    if (WIFSIGNALED(status)) result_->signal = WTERMSIG(status);
    if (WIFEXITED(status)) result_->status = WEXITSTATUS(status);
    result_->out = out();
    result_->err = err();
  }
  return result_;
}

std::string background_process::out() const {
  return content(out_);
}
std::string background_process::err() const {
  return content(err_);
}

process_result run_process(const std::vector<std::string> &argv, const process_options &options) {
  background_process child(argv, options);
  auto result = child.wait(options.limit);
  if (!result) {
    child.kill(SIGKILL);
    result = child.wait(std::chrono::seconds(10));
    if (!result) throw std::runtime_error(argv[0] + " survives SIGKILL");
    result->timed_out = true;
  }
  return *result;
}

}  // namespace support
