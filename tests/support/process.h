// Runs real programs: argument vector, environment, folder and time limit; no shell in between.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <csignal>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/owner.h"

namespace support {

struct process_options {
  // Set or replaced for the child; taken from it where there is no value.
  std::map<std::string, std::optional<std::string>> environment = {};
  std::filesystem::path log = {};  // stdout and stderr go to this file instead of the result
  // Writes where this process writes, and belongs to its terminal; others miss its signals.
  bool inherit_output = false;
  std::chrono::milliseconds limit{60'000};  // then run_process ends it and throws
};

struct process_result {
  std::string out;
  std::string err;
  int status = -1;  // exit status; -1 when a signal ended it, 127 when it cannot be started
  int signal = 0;   // the signal that ended it; 0 when it exited
};

// Runs `argv` to its end; argv[0] is a path, or a name that is looked up in PATH.
process_result run_process(const std::vector<std::string> &argv,
                           const process_options &options = {});

// A program, or work, that runs beside the test; whatever still runs at the end is killed and
// reaped. It also dies with the thread that started it.
class background_process {
 public:
  explicit background_process(const std::vector<std::string> &argv,
                              const process_options &options = {});
  // The work in a copy of this process, which ends with status 0 for true and 1 for false.
  explicit background_process(const std::function<bool()> &work);
  background_process(const background_process &) = delete;
  background_process &operator=(const background_process &) = delete;
  ~background_process();

  pid_t pid() const { return pid_; }
  bool running();
  void kill(int signal) const;  // nothing happens once it has ended
  // Its result once it has ended, or nullopt when it still runs after `limit`.
  std::optional<process_result> wait(std::chrono::milliseconds limit);

 private:
  void start(const std::function<void()> &child);  // which does not return

  pid_t pid_ = -1;
  unique_fd pidfd_, out_, err_;
  std::optional<process_result> result_;
};

// The status of work in a process of its own.
int run_forked(const std::function<bool()> &work);

// How long some work takes.
double seconds_of(const auto &work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Whether a condition holds before the time is up.
inline bool eventually(const std::function<bool()> &holds,
                       std::chrono::seconds limit = std::chrono::seconds(30)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace support

#endif
