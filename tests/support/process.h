// Runs real programs: argument vector, environment, folder and time limit; no shell in between.
#ifndef SUPPORT_PROCESS_H
#define SUPPORT_PROCESS_H

#include <sys/types.h>

#include <csignal>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/owner.h"

namespace support {

struct process_options {
  std::vector<std::pair<std::string, std::string>> environment;  // set or replaced for the child
  std::vector<std::string> without;                              // variables it must not see
  std::filesystem::path folder;                                  // working directory; empty: ours
  std::string input;                                             // its standard input, then EOF
  std::filesystem::path log;           // stdout and stderr go to this file instead of the result
  bool own_session = false;            // away from the terminal, so that its signals miss it
  bool inherit_output = false;         // writes where this process writes
  int signal_when_orphaned = SIGKILL;  // sent when the thread that started it ends; 0: none
  std::chrono::milliseconds limit{60'000};  // then run_process ends it with SIGKILL
};

struct process_result {
  std::string out;
  std::string err;
  int status = -1;  // exit status; -1 when a signal ended it
  int signal = 0;   // the signal that ended it; 0 when it exited
  bool timed_out = false;
};

// Runs `argv` to its end. argv[0] is a path, or a name that is looked up (find_program). Throws
// std::runtime_error when it cannot be started.
process_result run_process(const std::vector<std::string> &argv,
                           const process_options &options = {});

// A program that runs beside the test; whatever still runs at the end is killed and reaped.
class background_process {
 public:
  explicit background_process(const std::vector<std::string> &argv,
                              const process_options &options = {});
  background_process(const background_process &) = delete;
  background_process &operator=(const background_process &) = delete;
  ~background_process();

  pid_t pid() const { return pid_; }
  bool running();
  void kill(int signal) const;  // nothing happens once it has ended
  // Its result once it has ended, or nullopt when it still runs after `limit`.
  std::optional<process_result> wait(std::chrono::milliseconds limit);
  // What it has written so far.
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid_ = -1;
  unique_fd pidfd_, out_, err_;
  std::optional<process_result> result_;
};

// Full path of a program, searched in PATH and in the folders of system programs, which an
// ordinary user's PATH does not name; empty when there is none.
std::filesystem::path find_program(const std::string &name);

}  // namespace support

#endif
