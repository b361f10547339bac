// Starts programs without a shell, with pipes to them.
// For the host's Asterisk console; touches no other child of the process.
#include "platform/base/spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/base/deadline.h"
#include "platform/base/owner.h"

namespace {

// What the child does before it becomes the program. Each setter returns its error.
class launch_plan {
 public:
  launch_plan() noexcept
      : actions_error_(::posix_spawn_file_actions_init(&actions_)),
        attributes_error_(::posix_spawnattr_init(&attributes_)) {}
  launch_plan(const launch_plan &) = delete;
  launch_plan &operator=(const launch_plan &) = delete;
  ~launch_plan() {
    if (actions_error_ == 0) ::posix_spawn_file_actions_destroy(&actions_);
    if (attributes_error_ == 0) ::posix_spawnattr_destroy(&attributes_);
  }

  // 0 or an error number.
  int prepare(int output) noexcept {
    if (actions_error_ != 0) return actions_error_;
    if (attributes_error_ != 0) return attributes_error_;
    sigset_t all, none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    // The output comes first: where the host has closed its own standard descriptors, the pipe may
    // have got their numbers.
    for (const int error :
         {::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO),
          ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
          ::posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0),
          ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1),
          ::posix_spawnattr_setsigdefault(&attributes_, &all),
          ::posix_spawnattr_setsigmask(&attributes_, &none),
          ::posix_spawnattr_setflags(&attributes_,
                                     POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK)}) {
      if (error != 0) return error;
    }
    return 0;
  }

  // posix_spawn and not fork: a host may have much memory, whose tables fork would copy. argv[0]
  // must be a path; PATH is not searched.
  int run(char *const argv[], pid_t *pid) noexcept {
    return ::posix_spawn(pid, argv[0], &actions_, &attributes_, argv, environ);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int actions_error_;
  int attributes_error_;
};

// Children that were still running when their output had ended.
struct running_children {
  std::mutex lock;
  std::vector<pid_t> children;
};

// Threads of the host may still start programs while the process exits.
constinit never_destroyed<running_children> left_behind;

// Only pids of this list are waited for: the host's own children are none of our business. waitpid
// gives 0 for one that runs on, and -1 for one that is gone already.
void reap_left_behind() noexcept {
  const std::lock_guard guard(left_behind->lock);
  std::erase_if(left_behind->children,
                [](pid_t child) { return ::waitpid(child, nullptr, WNOHANG) != 0; });
}

enum class child_state { reaped, running, lost };

child_state reap_within(pid_t pid, float seconds) noexcept {
  using std::chrono::milliseconds;
  const deadline end(seconds);
  // From 1 ms up to 20 ms: most programs end at once, and a slow one costs no busy loop.
  milliseconds nap(1);
  for (;;) {
    const pid_t ended = ::waitpid(pid, nullptr, WNOHANG);
    if (ended == pid) return child_state::reaped;
    if (ended < 0 && errno != EINTR) return child_state::lost;
    if (end.passed()) return child_state::running;
    // Naps: waiting on a descriptor of the process fails where no descriptor is left to be had.
    std::this_thread::sleep_for(std::min(nap, milliseconds(end.milliseconds_left())));
    nap = std::min(2 * nap, milliseconds(20));
  }
}

}  // namespace

pid_t fr_spawn_async_piped(char *const argv[], int *output) noexcept {
  if (argv == nullptr || argv[0] == nullptr || output == nullptr) {
    errno = EINVAL;
    return -1;
  }
  // The only moment at which late children are collected; no thread and no signal does it.
  reap_left_behind();
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
  unique_fd reading(ends[0]);
  // Closed here on return: the reader finds the end of the output when the child ends.
  const unique_fd writing(ends[1]);
  launch_plan plan;
  pid_t pid = -1;
  int error = plan.prepare(writing.get());
  if (error == 0) error = plan.run(argv, &pid);
  if (error != 0) {
    errno = error;
    return -1;
  }
  *output = reading.release();
  return pid;
}

int fr_spawn_finish(pid_t pid, float grace) noexcept {
  if (pid <= 0) return -1;
  const child_state state = reap_within(pid, grace);
  if (state == child_state::running) {
    no_throw([pid] {
      const std::lock_guard guard(left_behind->lock);
      left_behind->children.push_back(pid);
    });
  }
  return state == child_state::reaped ? 0 : -1;
}
