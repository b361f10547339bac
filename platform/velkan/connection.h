// One connection to one cache server. It only moves bytes: which server to use, and what a failure
// means for the next command, is the group's business. Internal to platform/velkan.
#ifndef PLATFORM_VELKAN_CONNECTION_H
#define PLATFORM_VELKAN_CONNECTION_H

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/velkan/handles.h"

using vk_clock = std::chrono::steady_clock;

// The end of the first of `count` even shares of the time that is left.
inline vk_clock::time_point share_of(vk_clock::time_point deadline, size_t count) {
  const auto now = vk_clock::now();
  return now + std::max(deadline - now, vk_clock::duration::zero()) / static_cast<long>(count);
}

// A command as it goes over the wire.
// Empty when memory was short. Made outside the lock, as a large one takes a while.
class vk_command {
 public:
  // Copies the words, which are counted byte strings.
  vk_command(int count, const char **arguments, const size_t *lengths);
  bool empty() const { return length_ < 0; }
  std::string_view bytes() const { return {text_.get(), static_cast<size_t>(length_)}; }

 private:
  int length_;
  vk_command_text text_;
};

enum class vk_io {
  ok,
  broken,     // the peer is gone; nothing was waited for
  timed_out,  // the peer did not answer in time
  garbage     // the peer does not speak the protocol
};

// An address as connect takes it, of any family.
struct vk_address {
  sockaddr_storage bytes;
  socklen_t length;
};

// Where a host can be reached; one that begins with "/" is a Unix socket. Empty when that is
// nowhere. Looking up a name takes as long as the resolver does; anything else takes no time.
std::vector<vk_address> addresses_of(const std::string &host, int port);

// Used under the lock of its client. Closed with its owner; nothing is said to the server.
class vk_connection {
 public:
  // How long a plain wait may take; other waits get their deadline.
  static constexpr std::chrono::milliseconds command_timeout{2000};

  // Connects before the deadline to the first of a host's addresses that lets it. Each one gets an
  // even share of the time left. Empty, with errno, when none does.
  static std::optional<vk_connection> open(const std::vector<vk_address> &addresses,
                                           vk_clock::time_point deadline);

  // Sends a command and takes its reply. `patient` waits inside the one receiving call instead of
  // before it, for up to the command timeout: right for a peer that is known to answer. It is only
  // taken up when sending did not use up time already.
  vk_io ask(std::string_view command, vk_clock::time_point deadline, bool patient, vk_reply &reply);

  // `waited` becomes true when the peer did not take the bytes at once.
  vk_io send_all(std::string_view bytes, vk_clock::time_point deadline, bool &waited);
  // One whole reply, an error of the server included. Left-over bytes stay for the next call.
  vk_io receive(vk_clock::time_point deadline, bool patient, vk_reply &reply);

 private:
  vk_connection(unique_fd socket, vk_reader reader)
      : socket_(std::move(socket)), reader_(std::move(reader)) {}

  unique_fd socket_;
  vk_reader reader_;
};

#endif
