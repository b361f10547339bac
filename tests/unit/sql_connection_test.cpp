#include "platform/sql/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "platform/base/nb_io.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/servers.h"

using namespace std::chrono_literals;

namespace {

// Sends one byte of its greeting every 100 ms.
void drip(const unique_fd &listener) {
  const unique_fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const char header[] = {100, 0, 0, 0};
  send(peer.get(), header, sizeof header, MSG_NOSIGNAL);
  for (int i = 0; i < 90 && send(peer.get(), "5", 1, MSG_NOSIGNAL) == 1; i++) {
    std::this_thread::sleep_for(100ms);
  }
}

void expect_three_seconds(const sql_address &address) {
  mysql_handle handle;
  const double spent = support::seconds_of([&] {
    EXPECT_FALSE(open_connection(handle, {"user", "", ""}, address));
  });
  EXPECT_NEAR(spent, 3.0, 0.3) << address.text();
  EXPECT_STRNE(mysql_error(handle.get()), "");
}

TEST(SqlConnection, AServerThatDripsItsGreetingOrAcceptsNobodyIsHeldToThreeSecondsInAll) {
  int port = 0;
  const support::private_folder folder("sql");
  const std::string path = folder.path() / "dripping", full = folder.path() / "full";
  const unique_fd remote = support::bound_to_loopback(port), local = support::listening_at(path, 0),
                  accepting_none = support::listening_at(full, 0);
  ASSERT_EQ(listen(remote.get(), 0), 0);
  const unique_fd first_in_queue(fr_connect_nb_unix(full.c_str(), 1));
  std::vector<std::jthread> all;
  all.emplace_back(drip, std::cref(remote));
  all.emplace_back(drip, std::cref(local));
  all.emplace_back(expect_three_seconds, sql_address{"127.0.0.1", static_cast<unsigned>(port)});
  all.emplace_back(expect_three_seconds, sql_address{path});
  all.emplace_back(expect_three_seconds, sql_address{full});
}

}  // namespace
