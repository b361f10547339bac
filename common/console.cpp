// Commands for a running Asterisk, by its binary or over its console's socket.
// Talks to Asterisk only; what it prints goes to standard output or is dropped.
#include <cstdio>
#include <cstring>

#include <spoolcap/utils.h>
#include "platform/base/deadline.h"
#include "platform/base/nb_io.h"
#include "platform/base/owner.h"
#include "platform/base/spawn.h"

namespace {

// Seconds: for one read or write; until silence counts as the end of the output; for the end of a
// child; between two lines of the console; for all of its output.
constexpr float io_timeout = 10;
constexpr float output_pause = 5;
constexpr float end_of_child = 1;
constexpr float next_output = 0.1F;
constexpr float all_output = 5;

// What a terminal's editor takes for the end of input.
constexpr char end_of_transmission = 4;

}  // namespace

int rasterisk(const char *asterisk_binary, const char *command) {
  if (asterisk_binary == nullptr || command == nullptr) return -1;
  char remote[] = "-rx";
  // The system's interface takes writable texts and changes none.
  char *const argv[] = {const_cast<char *>(asterisk_binary), remote, const_cast<char *>(command),
                        nullptr};
  int output = -1;
  const pid_t child = fr_spawn_async_piped(argv, &output);
  if (child < 0) return -1;
  unique_fd reading(output);
  // The output is read to its end, as a full pipe would stop the child.
  char dropped[1024];
  while (fr_read_nb(reading.get(), dropped, sizeof dropped, output_pause) > 0) {
  }
  // A child that goes on writing gets an error or SIGPIPE from the closed pipe.
  reading.reset();
  fr_spawn_finish(child, end_of_child);
  return 0;
}

int ast_connect(const char *path) {
  return fr_connect_nb_unix(path, io_timeout);
}

int ast_runcmd(int fd, const char *command, int wait) {
  if (fd <= 0 || command == nullptr) return -1;
  // The console names itself first; what says nothing is no console.
  char greeting[80];
  if (fr_read_nb(fd, greeting, sizeof greeting, io_timeout) < 1) return -1;
  // The console takes the NUL for the end of the command.
  if (fr_write_nb_full(fd, command, std::strlen(command) + 1, io_timeout) != 0) return -1;
  if (wait == 0) return 0;
  const deadline end(all_output);
  while (true) {
    const deadline pause(next_output);
    if (!wait_ready(fd, POLLIN, &pause)) return 0;
    // At end of file poll() keeps reporting readable; ast_el_read_char() then returns -1 and ends
    // the loop.
    char last = 0;
    if (ast_el_read_char(fd, &last) == -1) return -1;
    if (end.passed()) return 0;
  }
}

int ast_el_read_char(int fd, char *out) {
  if (out == nullptr) return -1;
  while (true) {
    if (!wait_ready(fd, POLLIN, nullptr)) {
      std::fprintf(stderr, "poll failed: %s\n", std::strerror(errno));
      return -1;
    }
    char text[511];
    const ssize_t received = fr_read_nb(fd, text, sizeof text, io_timeout);
    if (received < 1) return -1;
    const auto length = static_cast<size_t>(received);
    std::fwrite(text, 1, length, stdout);
    // The next wait may be long, so what is here is shown before it.
    std::fflush(stdout);
    if (text[length - 1] == '\n' || (length > 1 && text[length - 2] == '\n')) {
      *out = end_of_transmission;
      return 0;
    }
  }
}
