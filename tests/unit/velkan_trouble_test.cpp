// The cache client beside servers that fail over, refuse, hang, die and talk garbage.
#include <thread>

#include "platform/velkan/group.h"
#include "tests/support/scripted_peer.h"
#include "tests/unit/velkan_fixture.h"

using namespace std::chrono_literals;
using support::ending;
using support::redis_server;
using support::scripted_peer;
using support::seconds_of;

namespace {

constexpr const char *greeting = "*3\r\n$6\r\nmaster\r\n:0\r\n*0\r\n+OK\r\n";

TEST(VelkanTrouble, TheKeyIsSentOnEveryConnectAndAWrongOneIsNoServer) {
  redis_server server({.password = "right"});
  const cache_client right({server.socket()}, "right"), wrong({server.socket()}, "wrong"),
      none({server.socket()});
  EXPECT_EQ(right.set("h", "f", "v"), VK_OK);
  EXPECT_EQ(wrong.get("h", "f"), VK_ERR_DOWN);
  EXPECT_EQ(none.get("h", "f"), VK_ERR_DOWN);
  server.stop();
  server.start();
  EXPECT_EQ(right.set("h", "f", "v"), VK_OK) << "a restart is not the caller's business";
}

TEST(VelkanTrouble, AReplicaIsSkippedAndAFailOverIsFollowed) {
  const redis_server first({.tcp = true});
  redis_server second({.tcp = true});
  follow(second, first);
  const cache_client client({second.socket(), first.socket()});
  ASSERT_EQ(client.set("h", "f", "1"), VK_OK);

  // By hand: the roles change while the connection stays.
  ask(second, {"REPLICAOF", "NO", "ONE"});
  follow(first, second);
  EXPECT_EQ(client.set("h", "f", "2"), VK_OK);

  // By a crash.
  second.kill_hard();
  ask(first, {"REPLICAOF", "NO", "ONE"});
  EXPECT_EQ(client.set("h", "f", "3"), VK_OK);
}

TEST(VelkanTrouble, AServerThatHangsDoesNotHideTheNext) {
  redis_server hanging;
  const redis_server serving;
  hanging.pause();
  const cache_client client({hanging.socket(), serving.socket()});
  EXPECT_TRUE(support::eventually([&] { return client.set("h", "f", "v") == VK_OK; }));
}

TEST(VelkanTrouble, AReplyOfAnotherTypeIsAnError) {
  const support::private_folder folder("peer");
  const scripted_peer peer(folder.path() / "peer", {greeting, "*1\r\n$1\r\nx\r\n"},
                           ending::silence);
  EXPECT_EQ(cache_client({peer.path()}).get("h", "f"), VK_ERR_REPLY);
}

// What else such a peer says is the business of the fuzz target cache_reply.
TEST(VelkanTrouble, APeerThatKeepsItsClientWaitingCostsLittle) {
  const struct {
    const char *name;
    std::vector<std::string> texts;
    ending last;
    double limit;  // of the first command, in seconds
  } rows[] = {
      {"silence", {}, ending::silence, 1.9},
      {"a text that never comes", {"$2147483647\r\nabc"}, ending::silence, 1.9},
      {"a greeting in drops", {std::string(greeting) + greeting}, ending::in_drops, 1.9},
      {"a line without an end", {greeting, "+" + std::string(64 << 20, 'x')}, ending::silence, 1.9},
      {"silence after the greeting", {greeting}, ending::silence, 6},
      {"an answer in drops", {greeting, "$99\r\n" + std::string(200, 'x')}, ending::in_drops, 6}};
  std::vector<std::jthread> all;  // at once, as most of them wait
  for (const auto &row : rows) {
    all.emplace_back([&row] {
      const support::private_folder folder("peer");
      const scripted_peer peer(folder.path() / "peer", row.texts, row.last);
      const cache_client client({peer.path()});
      const auto seconds_of_one = [&] {
        return seconds_of([&] { EXPECT_NE(client.get("h", "f"), VK_OK) << row.name; });
      };
      EXPECT_LT(seconds_of_one(), row.limit) << row.name;
      EXPECT_LT(seconds_of_one(), 0.4) << row.name << ": it was asked again at once";
    });
  }
}

}  // namespace
