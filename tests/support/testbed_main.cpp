// testbed [--object-store] COMMAND ARGUMENTS...
//
// Starts a private MariaDB and Redis in a temporary folder, and an object store if it is asked for.
// Runs the command with their addresses in its environment, and returns its status. In the end the
// command, the servers and the folder are gone, also on INT, TERM and HUP, and when the parent
// dies.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "tests/support/object_store.h"

namespace {

using namespace std::chrono_literals;

constexpr const char *with_store = "--object-store";

int run(std::vector<std::string> argv, const sigset_t &end_signals) {
  const support::private_folder folder("spoolcap");
  setenv(support::folder_variable, folder.path().c_str(), 1);
  const std::filesystem::path data = folder.path() / "template";
  support::mariadb_server::make_template(data);
  setenv(support::template_variable, data.c_str(), 1);
  support::mariadb_server database;
  support::redis_server cache;
  setenv(support::mariadb_variable, database.socket().c_str(), 1);
  setenv(support::redis_variable, cache.socket().c_str(), 1);
  std::optional<support::object_store> store;
  if (argv[0] == with_store) {
    argv.erase(argv.begin());
    store.emplace();
    setenv(support::object_store_variable, store->endpoint().c_str(), 1);
  }

  support::background_process command(argv, {.inherit_output = true});
  std::optional<support::process_result> result;
  while (!(result = command.wait(50ms))) {
    const timespec at_once{};
    if (const int number = sigtimedwait(&end_signals, nullptr, &at_once); number > 0) {
      command.kill(number);
    }
  }
  return result->signal != 0 ? 128 + result->signal : result->status;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2 || (argc < 3 && std::string_view(argv[1]) == with_store)) {
    std::fputs("usage: testbed [--object-store] COMMAND [ARGUMENT...]\n", stderr);
    return 2;
  }
  // They stay blocked and are asked for, so that everything is taken down in order.
  sigset_t end_signals;
  sigemptyset(&end_signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&end_signals, number);
  sigprocmask(SIG_BLOCK, &end_signals, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  // Servers stand in the folders of system programs, which an ordinary user's PATH does not name.
  const char *path = getenv("PATH");
  const std::string programs = path != nullptr ? path : "/usr/bin:/bin";
  setenv("PATH", (programs + ":/usr/local/sbin:/usr/sbin:/sbin").c_str(), 1);
  try {
    return run({argv + 1, argv + argc}, end_signals);
  } catch (const std::exception &failure) {
    std::fprintf(stderr, "testbed: %s\n", failure.what());
    return 1;
  }
}
