// A peer behind a Unix socket that says what it was told to, whatever it is asked.
#ifndef TESTS_SUPPORT_SCRIPTED_PEER_H
#define TESTS_SUPPORT_SCRIPTED_PEER_H

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/owner.h"

namespace support {

// A socket that is bound to this path, and listens.
inline unique_fd listening_at(const std::string &path, int queue) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  if (bind(socket.get(), generic, sizeof address) != 0 || listen(socket.get(), queue) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return socket;
}

// How the last text ends.
enum class ending { silence, in_drops, hang_up };

// Sends one text each time that something comes; every connection begins with the first.
class scripted_peer {
 public:
  scripted_peer(std::string path, std::vector<std::string> texts, ending last)
      : path_(std::move(path)), texts_(std::move(texts)), last_(last) {
    thread_ = std::jthread([this](const std::stop_token &stop) {
      while (!stop.stop_requested()) {
        serve(unique_fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), stop);
      }
    });
  }
  scripted_peer(const scripted_peer &) = delete;
  scripted_peer &operator=(const scripted_peer &) = delete;
  ~scripted_peer() {
    thread_.request_stop();
    shutdown(listener_.get(), SHUT_RDWR);
    unlink(path_.c_str());
  }
  const std::string &path() const { return path_; }

 private:
  void serve(const unique_fd &peer, const std::stop_token &stop) const {
    const timeval often{0, 20'000};
    setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &often, sizeof often);
    char buffer[4096];
    for (size_t next = 0; peer && !stop.stop_requested();) {
      const ssize_t got = recv(peer.get(), buffer, sizeof buffer, 0);
      if (got < 0 && errno == EAGAIN) continue;
      if (got <= 0) return;
      if (next == texts_.size()) continue;
      const std::string &text = texts_[next++];
      const bool is_last = next == texts_.size();
      const size_t step = is_last && last_ == ending::in_drops ? 1 : text.size();
      for (size_t at = 0; !stop.stop_requested() && at < text.size(); at += step) {
        if (send(peer.get(), &text[at], step, MSG_NOSIGNAL) < 0) return;
        if (step == 1) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (is_last && last_ == ending::hang_up) shutdown(peer.get(), SHUT_WR);
    }
  }

  std::string path_;
  std::vector<std::string> texts_;
  ending last_;
  unique_fd listener_ = listening_at(path_, 16);
  std::jthread thread_;
};

}  // namespace support

#endif
