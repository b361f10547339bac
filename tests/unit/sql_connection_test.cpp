#include "platform/sql/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <thread>

#include "platform/base/nb_io.h"
#include "tests/support/servers.h"

using namespace std::chrono_literals;

namespace {

unique_fd bound_to(const std::string &path) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  return socket;
}

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
  const unique_fd remote = support::bound_to_loopback(port), local = bound_to(path),
                  accepting_none = bound_to(full);
  for (const unique_fd *listener : {&remote, &local, &accepting_none}) {
    ASSERT_EQ(listen(listener->get(), 0), 0);
  }
  const unique_fd first_in_queue(fr_connect_nb_unix(full.c_str(), 1));
  std::vector<std::jthread> all;
  all.emplace_back(drip, std::cref(remote));
  all.emplace_back(drip, std::cref(local));
  all.emplace_back(expect_three_seconds, sql_address{"127.0.0.1", static_cast<unsigned>(port)});
  all.emplace_back(expect_three_seconds, sql_address{path});
  all.emplace_back(expect_three_seconds, sql_address{full});
}

}  // namespace
