// What the service says over one connection. Any thread may speak; the server's thread sends what
// there was no room for.
#ifndef TRANSFER_OUTLET_H
#define TRANSFER_OUTLET_H

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "main/transfer/wire.h"

// Ends the server's wait. It outlives the server for as long as another thread may write to it.
struct wake_event {
  wake_event() : fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  void set() const { ::eventfd_write(fd.get(), 1); }
  // Takes the event back before the work is looked at, so that none is missed.
  void clear() const {
    eventfd_t count = 0;
    ::eventfd_read(fd.get(), &count);
  }
  const unique_fd fd;
};

// Lives until the server and all downloads of the host have let go of it.
class outlet {
 public:
  outlet(unique_fd socket, std::shared_ptr<const wake_event> wake)
      : socket_(std::move(socket)), wake_(std::move(wake)) {}
  outlet(const outlet &) = delete;
  outlet &operator=(const outlet &) = delete;
  ~outlet() = default;

  // Sends now what there is room for. Nothing happens once it is closed.
  void say(std::vector<std::string> datagrams) {
    const std::lock_guard guard(lock_);
    if (!socket_) return;
    for (std::string &one : datagrams) unsent_.push_back(std::move(one));
    if (!send() || !unsent_.empty()) wake_->set();
  }
  // For any thread: the connection ends as if its other end had gone.
  void break_off() {
    const std::lock_guard guard(lock_);
    if (socket_) ::shutdown(socket_.get(), SHUT_RDWR);
  }
  // False when the connection is lost.
  bool flush() {
    const std::lock_guard guard(lock_);
    return send();
  }
  bool is_open() const {
    const std::lock_guard guard(lock_);
    return static_cast<bool>(socket_);
  }
  std::size_t unsent() const {
    const std::lock_guard guard(lock_);
    return unsent_.size();
  }
  // The two are the server's thread's, as is what uses the socket.
  int socket() const { return socket_.get(); }
  void close() {
    const std::lock_guard guard(lock_);
    socket_.reset();
  }

  // Written by the server's thread and by those of the downloads.
  std::atomic<std::size_t> downloads{0};  // that run
  std::atomic<bool> is_asking{false};     // for the state

 private:
  // Under the lock. False when the connection is lost; true also when there is no room now.
  bool send() {
    while (!unsent_.empty()) {
      const int error = send_datagram(socket_.get(), unsent_.front());
      if (error != 0) return error == EAGAIN || error == ENOBUFS || error == ENOMEM;
      unsent_.pop_front();
    }
    return true;
  }

  mutable std::mutex lock_;  // guards the next two
  unique_fd socket_;
  std::deque<std::string> unsent_;
  const std::shared_ptr<const wake_event> wake_;
};

#endif
