#include "sql/connection.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

using namespace std::chrono_literals;

TEST(SqlConnection, ARemoteServerThatDripsItsGreetingIsHeldToThreeSecondsInAll) {
  const unique_fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in name{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof name;
  auto *const address = reinterpret_cast<sockaddr *>(&name);
  ASSERT_EQ(bind(listener.get(), address, length), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  ASSERT_EQ(getsockname(listener.get(), address, &length), 0);
  const std::jthread server([&listener] {
    const unique_fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const char header[] = {100, 0, 0, 0};
    send(peer.get(), header, sizeof header, MSG_NOSIGNAL);
    for (int i = 0; i < 90 && send(peer.get(), "5", 1, MSG_NOSIGNAL) == 1; i++) {
      std::this_thread::sleep_for(100ms);
    }
  });
  mysql_handle handle;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(open_connection(handle, {"user", "", ""}, {"127.0.0.1", ntohs(name.sin_port)}));
  const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
  EXPECT_NEAR(spent.count(), 3.0, 0.3);
  EXPECT_STRNE(mysql_error(handle.get()), "");
}
