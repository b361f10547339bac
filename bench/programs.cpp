// Starts programs and waits for them.
#include "bench/programs.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/paths_sandbox.h"

long run_silently(const support::sandbox &box, const command &arguments) {
  ::setenv(support::paths_root_variable, box.root().c_str(), 1);
  std::vector<char *> argv;
  for (const std::string &argument : arguments) {
    argv.push_back(const_cast<char *>(argument.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t silence;
  ::posix_spawn_file_actions_init(&silence);
  ::posix_spawn_file_actions_addopen(&silence, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = -1;
  const int failed = ::posix_spawn(&child, argv[0], &silence, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&silence);
  int status = 0;
  struct rusage usage = {};
  if (failed != 0 || ::wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "bench: %s failed\n", argv[0]);
    std::exit(1);
  }
  return usage.ru_maxrss;
}

ratio::body running(const support::sandbox &box, const command &arguments) {
  return ratio::once([&box, arguments] { run_silently(box, arguments); });
}

command bare(const char *program, const support::sandbox &box) {
  return {program,
          box.mariadb_socket(),
          support::database_user,
          support::database_password,
          box.database(),
          box.redis_socket(),
          std::to_string(box.cache_database()),
          box.root().string()};
}
