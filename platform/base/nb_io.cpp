// Reads and writes within a time limit, whatever the mode of the descriptor.
// For sockets, pipes and files of hosts, whose mode must not change.
#include "platform/base/nb_io.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "platform/base/deadline.h"
#include "platform/base/owner.h"

namespace {

// The mode belongs to the open file, which other descriptors and processes may share. So it is
// changed for one system call at a time.
class non_blocking_scope {
 public:
  explicit non_blocking_scope(int fd) noexcept : fd_(fd), flags_(::fcntl(fd, F_GETFL)) {
    if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) ::fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
  }
  non_blocking_scope(const non_blocking_scope &) = delete;
  non_blocking_scope &operator=(const non_blocking_scope &) = delete;
  ~non_blocking_scope() {
    const int saved = errno;
    if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) ::fcntl(fd_, F_SETFL, flags_);
    errno = saved;
  }

 private:
  int fd_;
  int flags_;
};

// Holds SIGPIPE back from this thread, and takes away the one that a write in the scope raised; one
// that was waiting before stays.
class no_sigpipe {
 public:
  no_sigpipe() noexcept {
    sigset_t pending;
    ::sigpending(&pending);
    was_pending_ = ::sigismember(&pending, SIGPIPE) == 1;
    ::sigemptyset(&sigpipe_);
    ::sigaddset(&sigpipe_, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &old_);
  }
  no_sigpipe(const no_sigpipe &) = delete;
  no_sigpipe &operator=(const no_sigpipe &) = delete;
  ~no_sigpipe() {
    const int saved = errno;
    const timespec no_time{};
    if (saved == EPIPE && !was_pending_) ::sigtimedwait(&sigpipe_, nullptr, &no_time);
    ::pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    errno = saved;
  }

 private:
  sigset_t sigpipe_{}, old_{};
  bool was_pending_;
};

// A socket takes the flag for this one call, so its mode stays untouched for all that share it.
// ENOTSOCK means a pipe or a file, which has no such flag.
ssize_t read_now(int fd, void *buffer, size_t length) noexcept {
  const ssize_t received = ::recv(fd, buffer, length, MSG_DONTWAIT);
  if (received >= 0 || errno != ENOTSOCK) return received;
  const non_blocking_scope mode(fd);
  return ::read(fd, buffer, length);
}

// A pipe is written to as well: the descriptor of a command to Asterisk is the caller's choice.
ssize_t write_now(int fd, const void *buffer, size_t length) noexcept {
  const ssize_t sent = ::send(fd, buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  const no_sigpipe signals;
  const non_blocking_scope mode(fd);
  return ::write(fd, buffer, length);
}

// Whether it may be tried again: readiness was announced, but another reader or writer was faster.
bool may_retry(const deadline &end) noexcept {
  if (errno != EAGAIN && errno != EINTR) return false;
  if (!end.passed()) return true;
  errno = ETIMEDOUT;
  return false;
}

}  // namespace

int fr_connect_nb_unix(const char *path, float timeout) noexcept {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path == nullptr || std::strlen(path) >= sizeof address.sun_path) {
    errno = path == nullptr ? EINVAL : ENAMETOOLONG;
    return -1;
  }
  std::strcpy(address.sun_path, path);
  unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return -1;
  const deadline end(timeout);
  // A full queue refuses a Unix socket in non-blocking mode, and poll never reports when there is
  // room; the send timeout bounds the blocking wait for it instead.
  do {
    // Each try is given what is left of the time; at least 1 ms, as 0 would mean no limit.
    const int left = std::max(end.milliseconds_left(), 1);
    const timeval limit{left / 1000, left % 1000 * 1000};
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) return -1;
    if (::connect(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
      // The caller gets a socket that waits without a limit, as the contract says.
      const timeval none{};
      if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none) != 0) return -1;
      return socket.release();
    }
  } while (may_retry(end));
  return -1;
}

ssize_t fr_read_nb(int fd, void *buffer, size_t length, float timeout) noexcept {
  const deadline end(timeout);
  while (wait_ready(fd, POLLIN, &end)) {
    const ssize_t received = read_now(fd, buffer, length);
    if (received >= 0) return received;
    if (!may_retry(end)) break;
  }
  return -1;
}

int fr_write_nb_full(int fd, const void *buffer, size_t length, float timeout) noexcept {
  const deadline end(timeout);
  const auto *rest = static_cast<const char *>(buffer);
  while (length > 0) {
    if (!wait_ready(fd, POLLOUT, &end)) return -1;
    const ssize_t written = write_now(fd, rest, length);
    if (written < 0) {
      if (!may_retry(end)) return -1;
      continue;
    }
    rest += written;
    length -= static_cast<size_t>(written);
    // A peer that takes a byte at a time would pass every single wait.
    if (length > 0 && end.passed()) {
      errno = ETIMEDOUT;
      return -1;
    }
  }
  return 0;
}
