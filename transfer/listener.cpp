// The listening socket, and the lock that keeps a second service away.
// Makes the socket's file, its lock file and, if need be, their folder.
#include "transfer/listener.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "main/transfer/wire.h"
#include "platform/base/make_directories.h"

namespace {

// Hosts that connect at once while the server is busy; more of them get EAGAIN.
constexpr int waiting_hosts = 128;

std::string told(const std::string &path, const char *text) {
  return path + ": " + text;
}

// Removes a socket whose service is gone. Empty, or why the name cannot be had.
std::string clear(const std::string &path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return "";
  if (!S_ISSOCK(status.st_mode)) return told(path, "there is a file that is no socket");
  // EAGAIN: its service is there, and has much to do.
  // Asked by connecting: a file alone does not show whether a service listens.
  if (connect_to_service(path) || errno == EAGAIN) return told(path, "another service runs here");
  if (errno != ECONNREFUSED && errno != ENOENT) return told(path, std::strerror(errno));
  return ::unlink(path.c_str()) == 0 || errno == ENOENT ? "" : told(path, std::strerror(errno));
}

}  // namespace

listening_socket::~listening_socket() {
  struct stat status {};
  if (!socket_ || ::lstat(path_.c_str(), &status) != 0) return;
  // Another service may have the name by now.
  if (status.st_dev == device_ && status.st_ino == inode_) ::unlink(path_.c_str());
}

std::string listening_socket::open(const std::string &path) {
  const auto address = socket_address(path);
  if (!address) return told(path, std::strerror(ENAMETOOLONG));
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  make_directories(folder.c_str(), 0755, [](const char * /*made*/) { return 0; });
  const std::string lock = path + ".lock";
  // The lock comes before the socket: two services that start together must not both clear it.
  lock_.reset(::open(lock.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock_) return told(lock, std::strerror(errno));
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) return told(path, "another service runs here");
  std::string refused = clear(path);
  if (!refused.empty()) return refused;

  unique_fd made(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto *const bytes = reinterpret_cast<const sockaddr *>(&*address);
  struct stat status {};
  if (!made || ::bind(made.get(), bytes, sizeof *address) != 0 ||
      ::lstat(path.c_str(), &status) != 0) {
    return told(path, std::strerror(errno));
  }
  path_ = path;
  socket_ = std::move(made);
  device_ = status.st_dev;
  inode_ = status.st_ino;
  // Before anybody can connect.
  if (::chmod(path.c_str(), 0660) != 0 || ::listen(socket_.get(), waiting_hosts) != 0) {
    return told(path, std::strerror(errno));
  }
  return "";
}
