// Asks the running service for its state.
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "main/transfer/protocol.h"
#include "platform/base/deadline.h"
#include "platform/base/owner.h"
#include "transfer/status.h"

namespace {

// The service asks the DisDB before it answers.
constexpr float patience = 20;

status_answer failed(const std::string &socket_path, const char *what, int error) {
  return {.json = std::nullopt,
          .error = "the service at " + socket_path + " " + what + ": " + std::strerror(error)};
}

unique_fd connect_to(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return {};
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  unique_fd end(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!end) return end;
  if (::connect(end.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    end.reset();
  }
  return end;
}

// One piece of the state. Nothing, with errno, when none comes in time or it is none.
std::optional<std::string> receive_piece(int end, const deadline &limit) {
  struct datagram {
    transfer_head head;
    char text[longest_datagram];
  };
  const auto datagram_of = std::make_unique<datagram>();
  if (!wait_ready(end, POLLIN, &limit)) return std::nullopt;
  const ssize_t length = ::recv(end, datagram_of.get(), sizeof(datagram), 0);
  if (length < 0) return std::nullopt;
  const transfer_head &head = datagram_of->head;
  errno = length == 0 ? ECONNRESET : EPROTO;
  if (static_cast<std::size_t>(length) < sizeof head || head.magic != transfer_magic ||
      head.version != transfer_version || head.word != transfer_word::report ||
      static_cast<std::size_t>(length) - sizeof head != head.first_length) {
    return std::nullopt;
  }
  return std::string(datagram_of->text, head.first_length);
}

}  // namespace

status_answer ask_status(const std::string &socket_path) {
  const unique_fd end = connect_to(socket_path);
  if (!end) return failed(socket_path, "cannot be reached", errno);
  const transfer_head question{.magic = transfer_magic,
                               .version = transfer_version,
                               .word = transfer_word::status,
                               .status = 0,
                               .id = 0,
                               .first_length = 0,
                               .second_length = 0};
  if (::send(end.get(), &question, sizeof question, MSG_NOSIGNAL) != sizeof question) {
    return failed(socket_path, "cannot be asked", errno);
  }
  const deadline limit(patience);
  std::string json;
  for (;;) {
    const auto piece = receive_piece(end.get(), limit);
    if (!piece) return failed(socket_path, "does not answer", errno);
    if (piece->empty()) return {.json = std::move(json), .error = {}};
    json += *piece;
  }
}
