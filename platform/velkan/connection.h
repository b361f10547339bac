// One connection to one cache server. It only moves bytes: which server to use, and what a failure
// means for the next command, is the group's business. Internal to platform/velkan.
#ifndef PLATFORM_VELKAN_CONNECTION_H
#define PLATFORM_VELKAN_CONNECTION_H

#include <hiredis/hiredis.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/owner.h"

using vk_clock = std::chrono::steady_clock;

using vk_reply = std::unique_ptr<redisReply, call_to_release<freeReplyObject>>;
using vk_reader = std::unique_ptr<redisReader, call_to_release<redisReaderFree>>;

// A command as it goes over the wire.
class vk_command {
 public:
  vk_command(int count, const char **arguments, const size_t *lengths);
  bool empty() const { return length_ < 0; }
  std::string_view bytes() const { return {text_.get(), static_cast<size_t>(length_)}; }

 private:
  int length_;
  std::unique_ptr<char, call_to_release<redisFreeCommand>> text_;
};

enum class vk_io {
  ok,
  broken,     // the peer is gone; nothing was waited for
  timed_out,  // the peer did not answer in time
  garbage     // the peer does not speak the protocol
};

class vk_connection {
 public:
  // How long a plain wait may take; other waits are told their deadline.
  static constexpr std::chrono::milliseconds command_timeout{2000};

  // Connects before the deadline; a host that begins with "/" is a Unix socket. Empty, with errno,
  // when that fails.
  static std::optional<vk_connection> open(const std::string &host, int port,
                                           vk_clock::time_point deadline);

  // Sends a command and takes its reply. `patient` waits inside the one receiving call instead of
  // before it, for up to the command timeout: right for a peer that is known to answer.
  vk_io ask(std::string_view command, vk_clock::time_point deadline, bool patient, vk_reply &reply);

  vk_io send_all(std::string_view bytes, vk_clock::time_point deadline);
  vk_io receive(vk_clock::time_point deadline, bool patient, vk_reply &reply);

 private:
  vk_connection(unique_fd socket, vk_reader reader)
      : socket_(std::move(socket)), reader_(std::move(reader)) {}

  unique_fd socket_;
  vk_reader reader_;
};

#endif
