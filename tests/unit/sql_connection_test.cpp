#include "sql/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "support/servers.h"

using namespace std::chrono_literals;

TEST(SqlConnection, ARemoteServerThatDripsItsGreetingIsHeldToThreeSecondsInAll) {
  int port = 0;
  const unique_fd listener = support::bound_to_loopback(port);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  const std::jthread server([&listener] {
    const unique_fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const char header[] = {100, 0, 0, 0};
    send(peer.get(), header, sizeof header, MSG_NOSIGNAL);
    for (int i = 0; i < 90 && send(peer.get(), "5", 1, MSG_NOSIGNAL) == 1; i++) {
      std::this_thread::sleep_for(100ms);
    }
  });
  mysql_handle handle;
  const double spent = support::seconds_of([&] {
    EXPECT_FALSE(
        open_connection(handle, {"user", "", ""}, {"127.0.0.1", static_cast<unsigned>(port)}));
  });
  EXPECT_NEAR(spent, 3.0, 0.3);
  EXPECT_STRNE(mysql_error(handle.get()), "");
}
