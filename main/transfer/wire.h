// The datagrams of protocol.h on a socket. Nothing here waits. Internal to main/transfer/ and
// transfer/.
#ifndef MAIN_TRANSFER_WIRE_H
#define MAIN_TRANSFER_WIRE_H

#include <sys/un.h>

#include <optional>
#include <string>

#include "main/transfer/protocol.h"
#include "platform/base/owner.h"

// One datagram with its texts. `first` and `second` are what the word says they are.
struct transfer_message {
  transfer_word word{};
  std::int32_t status = 0;
  std::uint64_t id = 0;
  std::string first;
  std::string second;
  unique_fd descriptor;  // that came along; none is sent
};

// Empty when the texts are too long for one datagram.
std::string encode_message(const transfer_message &message);

// 0, or the error number; EAGAIN when there is no room now.
// `descriptor` is lent: the other end gets a copy of its own.
int send_datagram(int socket, const std::string &datagram, int descriptor = -1);

enum class receiving {
  message,
  nothing,   // for now
  ended,     // the other end is gone
  malformed  // what came is no message
};
// Fills `message` when it gives receiving::message; else parts of it may be set. A descriptor that
// came along is closed with it.
receiving receive_message(int socket, transfer_message &message);

// Nothing for a path that no address holds.
std::optional<sockaddr_un> socket_address(const std::string &path);

// A socket that is connected to the service, or none, with errno: EAGAIN when too many wait there.
unique_fd connect_to_service(const std::string &path);

#endif
