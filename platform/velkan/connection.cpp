// Moves bytes to and from one cache server, within a deadline.
// Sockets only: what the bytes mean is for group.cpp and commands.cpp.
#include "platform/velkan/connection.h"

#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/base/deadline.h"

namespace {

// More than a peer can mean: a reply that claims to be larger is garbage, and must not make this
// process reserve, or read, what it claims.
constexpr size_t largest_reply = 64U << 20;
constexpr size_t most_elements = 1U << 20;  // with those of the lists in it
constexpr size_t longest_line = 64U << 10;

using address_list = std::unique_ptr<addrinfo, call_to_release<::freeaddrinfo>>;

// Whether the socket is ready for `events` before the deadline; errno is ETIMEDOUT if not. After
// the deadline it is not looked at: a peer that always has more to say must not prolong it.
bool wait_for(int socket, short events, vk_clock::time_point time) {
  const deadline end(time);
  errno = ETIMEDOUT;
  return !end.passed() && wait_ready(socket, events, &end);
}

// Non-blocking from the start: a host that drops packets must not hold the command up. errno has
// the reason when it is empty.
unique_fd connect_socket(const vk_address &address, vk_clock::time_point deadline) {
  const int family = address.bytes.ss_family;
  unique_fd socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return {};
  const auto *peer = reinterpret_cast<const sockaddr *>(&address.bytes);
  if (::connect(socket.get(), peer, address.length) != 0) {
    if (errno != EINPROGRESS || !wait_for(socket.get(), POLLOUT, deadline)) return {};
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
      errno = error;
      return {};
    }
  }
  if (family != AF_UNIX) {
    // A command is one small packet; it must not wait to be joined with another.
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return socket;
}

vk_address address_from(const void *bytes, socklen_t length) {
  vk_address address = {};
  std::memcpy(&address.bytes, bytes, length);
  address.length = length;
  return address;
}

std::vector<vk_address> local_address(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return {};
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return {address_from(&address, sizeof address)};
}

// From now on a receive waits by itself, for the command timeout.
bool make_patient(int socket) {
  const timeval timeout = {vk_connection::command_timeout.count() / 1000, 0};
  const int flags = ::fcntl(socket, F_GETFL);
  return flags >= 0 && ::fcntl(socket, F_SETFL, flags & ~O_NONBLOCK) == 0 &&
         ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0;
}

// hiredis's own, set once by make_reader and called by the function below.
decltype(redisReplyObjectFunctions::createArray) create_any_array = nullptr;

// Called by the one thread that reads the reply, from its outermost list inwards.
void *create_sane_array(const redisReadTask *task, int elements) {
  // Counts across nested lists: many small ones cost as much as a large one.
  static thread_local size_t in_reply = 0;
  if (task->parent == nullptr) in_reply = 0;
  in_reply += static_cast<size_t>(elements);
  return in_reply > most_elements ? nullptr : create_any_array(task, elements);
}

// Whether what waits to be read begins with a line that does not end.
bool has_endless_line(const redisReader &reader) {
  const size_t waiting = reader.len - reader.pos;
  return waiting > longest_line && memchr(reader.buf + reader.pos, '\n', longest_line) == nullptr;
}

// A reader that believes no length without bounds.
vk_reader make_reader() {
  vk_reader reader(redisReaderCreate());
  if (!reader) return nullptr;
  // One table for all readers, made from that of the first; it outlives each of them.
  static redisReplyObjectFunctions functions = [&reader] {
    redisReplyObjectFunctions own = *reader->fn;
    create_any_array = own.createArray;
    own.createArray = create_sane_array;
    return own;
  }();
  reader->fn = &functions;
  return reader;
}

}  // namespace

vk_command::vk_command(int count, const char **arguments, const size_t *lengths) {
  char *text = nullptr;
  length_ = redisFormatCommandArgv(&text, count, arguments, lengths);
  if (length_ >= 0) text_.reset(text);
}

std::vector<vk_address> addresses_of(const std::string &host, int port) {
  if (host.starts_with('/')) return local_address(host);
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo *found = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return {};
  const address_list owner(found);
  std::vector<vk_address> addresses;
  for (const addrinfo *entry = found; entry != nullptr; entry = entry->ai_next) {
    addresses.push_back(address_from(entry->ai_addr, entry->ai_addrlen));
  }
  return addresses;
}

std::optional<vk_connection> vk_connection::open(const std::vector<vk_address> &addresses,
                                                 vk_clock::time_point deadline) {
  errno = EHOSTUNREACH;
  unique_fd socket;
  size_t left = addresses.size();
  for (const vk_address &address : addresses) {
    // A first address that hangs leaves time for those after it.
    socket = connect_socket(address, share_of(deadline, left--));
    if (socket) break;
  }
  if (!socket || !make_patient(socket.get())) return std::nullopt;
  vk_reader reader = make_reader();
  if (!reader) return std::nullopt;
  return vk_connection(std::move(socket), std::move(reader));
}

vk_io vk_connection::ask(std::string_view command, vk_clock::time_point deadline, bool patient,
                         vk_reply &reply) {
  // What is left over belongs to no command that was sent; the answers would be out of step.
  if (reader_->pos != reader_->len) return vk_io::garbage;
  bool waited = false;
  const vk_io sent = send_all(command, deadline, waited);
  return sent == vk_io::ok ? receive(deadline, patient && !waited, reply) : sent;
}

vk_io vk_connection::send_all(std::string_view bytes, vk_clock::time_point deadline, bool &waited) {
  while (!bytes.empty()) {
    // A peer that is gone must give an error, never a signal that ends the process.
    const ssize_t sent =
        ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      waited = true;
      if (!wait_for(socket_.get(), POLLOUT, deadline)) return vk_io::timed_out;
    } else if (errno != EINTR) {
      return vk_io::broken;
    }
  }
  return vk_io::ok;
}

vk_io vk_connection::receive(vk_clock::time_point deadline, bool patient, vk_reply &reply) {
  char buffer[16 * 1024];
  size_t total = 0;
  for (;;) {
    void *complete = nullptr;
    if (redisReaderGetReply(reader_.get(), &complete) != REDIS_OK) return vk_io::garbage;
    if (complete != nullptr) {
      reply.reset(static_cast<redisReply *>(complete));
      return vk_io::ok;
    }
    if (total > largest_reply || has_endless_line(*reader_)) return vk_io::garbage;
    if (!patient && !wait_for(socket_.get(), POLLIN, deadline)) return vk_io::timed_out;
    const ssize_t got = ::recv(socket_.get(), buffer, sizeof buffer, patient ? 0 : MSG_DONTWAIT);
    if (got == 0) return vk_io::broken;
    if (got > 0) {
      if (redisReaderFeed(reader_.get(), buffer, static_cast<size_t>(got)) != REDIS_OK) {
        return vk_io::garbage;
      }
      total += static_cast<size_t>(got);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (patient) return vk_io::timed_out;
    } else if (errno != EINTR) {
      return vk_io::broken;
    }
    patient = false;  // whatever comes after the first piece is held to the deadline
  }
}
