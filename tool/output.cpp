// Watches standard output, and escapes logins for terminals.
// Touches no descriptor but the three standard ones.
#include "tool/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The first failure has the cause; later ones may only follow from it.
int first_error = 0;

void tell_lost_output() {
  has_lost_output();
  // Some file systems report an error only when the file is closed.
  if (std::fclose(stdout) != 0 && first_error == 0) first_error = errno;
  if (first_error != 0) {
    std::fprintf(stderr, "Standard output could not be written to its end: %s\n",
                 std::strerror(first_error));
  }
}

// Length of the control character that the text begins with; 0 when it begins with none.
int control_length(const unsigned char *text) {
  if (text[0] < 0x20 || text[0] == 0x7f) return 1;
  return text[0] == 0xc2 && text[1] >= 0x80 && text[1] <= 0x9f ? 2 : 0;
}

}  // namespace

void watch_output() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) continue;
    // Gets this very number, the lowest free one. Writing to standard output then still fails.
    [[maybe_unused]] const int taken =
        ::open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY);
  }
  // A reader that went away is an error to report like any other, and no reason to die silently.
  std::signal(SIGPIPE, SIG_IGN);
  std::atexit(tell_lost_output);
}

bool has_lost_output() {
  if (std::ferror(stdout) == 0) return false;
  if (first_error == 0) first_error = errno != 0 ? errno : EIO;
  return true;
}

void print_login(const char *login) {
  // Files and pipes get the login byte by byte: programs compare it with the database.
  static const bool on_terminal = ::isatty(STDOUT_FILENO) == 1;
  if (!on_terminal) {
    std::fputs(login, stdout);
    return;
  }
  const auto *text = reinterpret_cast<const unsigned char *>(login);
  while (*text != '\0') {
    int escaped = control_length(text);
    if (escaped == 0) std::putchar(*text++);
    for (; escaped > 0; --escaped) std::printf("\\x%02x", *text++);
  }
}
