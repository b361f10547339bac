// Packs and unpacks the datagrams between hosts and the transfer service.
// Used by both ends, on sockets that never block.
#include "main/transfer/wire.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t most_descriptors = 4;  // more than one are none of ours

// Takes the one descriptor that came along, and closes others. False when there were others.
bool take_descriptor(msghdr &header, unique_fd &descriptor) {
  std::size_t count = 0;
  for (cmsghdr *part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t sent = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < sent; ++i, ++count) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
      // Each new one closes the one before, so nothing is leaked by a peer that sends many.
      descriptor.reset(fd);
    }
  }
  return count <= 1;
}

// Lengths come from another process: both are checked against what arrived.
bool decode(const char *bytes, std::size_t length, transfer_message &message) {
  transfer_head head{};
  if (length < sizeof head) return false;
  std::memcpy(&head, bytes, sizeof head);
  if (head.magic != transfer_magic || head.version != transfer_version) return false;
  const std::size_t rest = length - sizeof head;
  if (head.first_length > rest || head.second_length != rest - head.first_length) return false;
  message.word = head.word;
  message.status = head.status;
  message.id = head.id;
  message.first.assign(bytes + sizeof head, head.first_length);
  message.second.assign(bytes + sizeof head + head.first_length, head.second_length);
  return true;
}

}  // namespace

std::string encode_message(const transfer_message &message) {
  if (message.first.size() > longest_datagram || message.second.size() > longest_datagram ||
      sizeof(transfer_head) + message.first.size() + message.second.size() > longest_datagram) {
    return {};
  }
  const transfer_head head{.magic = transfer_magic,
                           .version = transfer_version,
                           .word = message.word,
                           .status = message.status,
                           .id = message.id,
                           .first_length = static_cast<std::uint32_t>(message.first.size()),
                           .second_length = static_cast<std::uint32_t>(message.second.size())};
  // In the byte order of the machine: both ends run on it.
  std::string datagram(reinterpret_cast<const char *>(&head), sizeof head);
  return datagram.append(message.first).append(message.second);
}

int send_datagram(int socket, const std::string &datagram, int descriptor) {
  iovec bytes{const_cast<char *>(datagram.data()), datagram.size()};
  msghdr header{};
  header.msg_iov = &bytes;
  header.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  if (descriptor >= 0) {
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr *part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(part), &descriptor, sizeof descriptor);
  }
  while (::sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

receiving receive_message(int socket, transfer_message &message) {
  std::array<char, longest_datagram> buffer;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(most_descriptors * sizeof(int))> control;
  for (;;) {
    iovec bytes{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_iov = &bytes;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t length = ::recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length < 0 && errno == EAGAIN) return receiving::nothing;
    // The kernel reports a reset once; what came before it can still be read.
    if (length < 0 && (errno == EINTR || errno == ECONNRESET)) continue;
    // No datagram of the protocol is empty, so 0 is the end of the connection.
    if (length <= 0) return receiving::ended;
    const bool is_one = take_descriptor(header, message.descriptor);
    if (!is_one || (header.msg_flags & MSG_TRUNC) != 0 ||
        !decode(buffer.data(), static_cast<std::size_t>(length), message)) {
      return receiving::malformed;
    }
    return receiving::message;
  }
}

std::optional<sockaddr_un> socket_address(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

unique_fd connect_to_service(const std::string &path) {
  const auto address = socket_address(path);
  errno = ENAMETOOLONG;
  if (!address) return {};
  // SEQPACKET keeps the bounds of datagrams and shows when the other end goes.
  unique_fd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto *const bytes = reinterpret_cast<const sockaddr *>(&*address);
  if (socket && ::connect(socket.get(), bytes, sizeof *address) != 0) socket.reset();
  return socket;
}
