// testbed COMMAND ARGUMENTS...
//
// Starts a private MariaDB and Redis in a temporary folder, runs the command with their sockets in
// its environment, and gives back its status. In the end, also on INT, TERM and HUP and when the
// program that started the testbed dies, nothing is left: no server, no folder, nothing that the
// command left running.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>

#include "support/servers.h"

namespace {

using namespace std::chrono_literals;
using support::private_folder;

// The signals that end a testbed stay blocked and are asked for, so that everything is taken down
// in order wherever they arrive.
class end_signals {
 public:
  end_signals() {
    sigemptyset(&set_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, number);
    sigprocmask(SIG_BLOCK, &set_, nullptr);
  }

  // The next one that came, 0 when there is none. `from_terminal`: the kernel sent it to the whole
  // foreground group, the command included.
  int next(bool &from_terminal) const {
    siginfo_t info;
    const timespec at_once{};
    const int number = sigtimedwait(&set_, &info, &at_once);
    from_terminal = number > 0 && info.si_code == SI_KERNEL;
    return std::max(number, 0);
  }

 private:
  sigset_t set_;
};

// Kills what the command left running: as a subreaper the testbed is the parent of all of it.
void end_leftovers() {
  const std::string self = std::to_string(getpid());
  do {
    std::ifstream children("/proc/" + self + "/task/" + self + "/children");
    for (pid_t child; children >> child;) kill(child, SIGKILL);
  } while (waitpid(-1, nullptr, 0) > 0);
}

int run(const std::vector<std::string> &argv, const end_signals &signals) {
  const private_folder folder("spoolcap");
  setenv(support::folder_variable, folder.path().c_str(), 1);
  const std::filesystem::path data = folder.path() / "template";
  support::mariadb_server::make_template(data);
  setenv(support::template_variable, data.c_str(), 1);

  bool from_terminal = false;
  if (const int early = signals.next(from_terminal)) return 128 + early;
  support::mariadb_server database;
  support::redis_server cache;
  setenv(support::mariadb_variable, database.socket().c_str(), 1);
  setenv(support::redis_variable, cache.socket().c_str(), 1);

  support::background_process command(argv, {.inherit_output = true});
  std::optional<support::process_result> result;
  while (!(result = command.wait(50ms))) {
    if (const int number = signals.next(from_terminal); number != 0 && !from_terminal) {
      command.kill(number);
    }
  }
  database.stop();
  cache.stop();
  end_leftovers();
  return result->signal != 0 ? 128 + result->signal : result->status;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fputs("usage: testbed COMMAND [ARGUMENT...]\n", stderr);
    return 2;
  }
  const end_signals signals;
  const pid_t parent = getppid();
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) return 128 + SIGTERM;
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  // Servers stand in the folders of system programs, which an ordinary user's PATH does not name.
  const char *path = getenv("PATH");
  setenv("PATH",
         std::string(path != nullptr ? path : "/usr/bin:/bin")
             .append(":/usr/local/sbin:/usr/sbin:/sbin")
             .c_str(),
         1);
  try {
    return run({argv + 1, argv + argc}, signals);
  } catch (const std::exception &failure) {
    std::fprintf(stderr, "testbed: %s\n", failure.what());
    return 1;
  }
}
