#include "tests/support/faulty_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>

namespace support {
namespace {

std::string configuration_of(const server &proxy) {
  return (proxy.folder() / "haproxy.cfg").string();
}

std::vector<std::string> proxy_argv(const server &proxy) {
  return {"haproxy", "-db", "-f", configuration_of(proxy)};
}

bool proxy_answers(const server &proxy) {
  const unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address{
      AF_INET, htons(static_cast<uint16_t>(proxy.port())), {htonl(INADDR_LOOPBACK)}, {}};
  return ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

}  // namespace

faulty_proxy::faulty_proxy(const std::string &endpoint, const fault_shares &shares)
    : server({"proxy", proxy_argv, proxy_answers}, {.tcp = true}) {
  std::ofstream(configuration_of(*this))
      << "defaults\n  mode http\n  timeout connect 5s\n  timeout client 60s\n"
      << "  timeout server 60s\nfrontend front\n  bind 127.0.0.1:" << port()
      << "\n  http-request silent-drop if { rand(100) lt " << shares.dropped << " }\n"
      << "  http-request return status 503 content-type application/xml string "
         "\"<Error><Code>SlowDown</Code></Error>\" if { rand(100) lt "
      << shares.refused << " }\n  http-request reject if { rand(100) lt " << shares.closed
      << " }\n  http-request return status 400 if { path_end " << shares.poisoned
      << " }\n  default_backend store\nbackend store\n  server store "
      << endpoint.substr(endpoint.find("//") + 2) << "\n";
  start();
}

}  // namespace support
