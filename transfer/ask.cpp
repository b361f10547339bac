// Asks the running service for its state.
// Runs in the process of the command, over the service's socket.
#include <cerrno>
#include <cstring>

#include "main/transfer/wire.h"
#include "platform/base/deadline.h"
#include "transfer/status.h"

namespace {

// The service asks the DisDB before it answers.
// Seconds, for the whole answer.
constexpr float patience = 20;

status_answer failed(const std::string &socket_path, const char *what, int error) {
  return {.json = std::nullopt,
          .error = "the service at " + socket_path + " " + what + ": " + std::strerror(error)};
}

// Nothing, with errno, when no piece comes in time.
std::optional<std::string> receive_piece(int socket, const deadline &limit) {
  transfer_message message;
  for (;;) {
    switch (receive_message(socket, message)) {
      case receiving::message:
        if (message.word == transfer_word::report) return std::move(message.first);
        break;
      case receiving::nothing:
        if (!wait_ready(socket, POLLIN, &limit)) return std::nullopt;
        break;
      case receiving::ended:
        errno = ECONNRESET;
        return std::nullopt;
      case receiving::malformed:
        errno = EPROTO;
        return std::nullopt;
    }
  }
}

}  // namespace

// Each command makes a connection of its own; the service sees it as one more host.
status_answer ask_status(const std::string &socket_path) {
  const unique_fd socket = connect_to_service(socket_path);
  if (!socket) return failed(socket_path, "cannot be reached", errno);
  const std::string question = encode_message({.word = transfer_word::status});
  const int error = send_datagram(socket.get(), question);
  if (error != 0) return failed(socket_path, "cannot be asked", error);
  const deadline limit(patience);
  std::string json;
  for (;;) {
    const auto piece = receive_piece(socket.get(), limit);
    if (!piece) return failed(socket_path, "does not answer", errno);
    // An empty piece is the end; without it a service that died would leave half a text.
    if (piece->empty()) return {.json = std::move(json), .error = {}};
    json += *piece;
  }
}
