#include "tests/support/scripted_server.h"

#include <sys/socket.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "tests/support/servers.h"

namespace support {
namespace {

// The next request; nullopt at the end of the connection.
std::optional<std::string> read_request(int fd) {
  std::string request;
  for (char buffer[65536];;) {
    const size_t head = request.find("\r\n\r\n");
    if (head != request.npos) {
      const size_t length = request.find("Content-Length: ");
      const size_t body = length < head ? std::strtoul(&request[length + 16], nullptr, 10) : 0;
      if (request.size() >= head + 4 + body) return request;
    }
    const ssize_t received = ::recv(fd, buffer, sizeof buffer, 0);
    if (received <= 0) return std::nullopt;
    request.append(buffer, static_cast<size_t>(received));
  }
}

}  // namespace

scripted_server::scripted_server(answer_maker answer, then what)
    : answer_(std::move(answer)), then_(what), listening_(bound_to_loopback(port_)) {
  if (::listen(listening_.get(), 16) != 0) throw std::runtime_error("cannot listen");
  thread_ = std::thread([this] { serve(); });
}

scripted_server::~scripted_server() {
  ends_ = true;
  ::shutdown(listening_.get(), SHUT_RDWR);
  if (open_ >= 0) ::shutdown(open_, SHUT_RDWR);
  thread_.join();
}

void scripted_server::serve() {
  while (!ends_) {
    const unique_fd connection(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) return;
    ++connections_;
    open_ = connection.get();
    while (!ends_) {
      const std::optional<std::string> request = read_request(connection.get());
      if (!request) break;
      const std::string answer = answer_(*request);
      const ssize_t sent = ::send(connection.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
      if (sent != std::ssize(answer) || then_ == then::closes) break;
    }
    open_ = -1;
  }
}

std::string http_answer(const std::string &status, const std::string &headers,
                        const std::string &body) {
  return "HTTP/1.1 " + status + "\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace support
