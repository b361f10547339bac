// The cache client beside servers that fail over, refuse, hang, die and talk garbage.
#include <sys/socket.h>
#include <sys/un.h>

#include <thread>

#include "platform/velkan/group.h"
#include "tests/unit/velkan_fixture.h"

using namespace std::chrono_literals;
using support::redis_server;
using support::seconds_of;

namespace {

// Makes it a replica and waits for it to find its master.
void follow(const redis_server &replica, const redis_server &master) {
  ask(replica, {"REPLICAOF", "127.0.0.1", std::to_string(master.port()).c_str()});
  for (int i = 0; i < 500; i++) {
    if (ask(replica, {"INFO", "replication"}).find("master_link_status:up") != std::string::npos) {
      return;
    }
    std::this_thread::sleep_for(20ms);
  }
  FAIL() << "the replica did not find its master";
}

constexpr const char *greeting = "*3\r\n$6\r\nmaster\r\n:0\r\n*0\r\n+OK\r\n";

// How the last text comes: at once, or a byte at a time.
enum class manner { at_once, in_drops };

// A peer that sends one text each time that something comes, whatever that is; then silence.
class scripted_peer {
 public:
  scripted_peer(const std::vector<std::string> &texts, manner last) : texts_(texts), last_(last) {
    sockaddr_un address{AF_UNIX, {}};
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    const auto *generic = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(bind(listener_.get(), generic, sizeof address), 0);
    EXPECT_EQ(listen(listener_.get(), 16), 0);
    thread_ = std::jthread([this](const std::stop_token &stop) {
      while (!stop.stop_requested()) {
        serve(unique_fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), stop);
      }
    });
  }
  scripted_peer(const scripted_peer &) = delete;
  scripted_peer &operator=(const scripted_peer &) = delete;
  ~scripted_peer() {
    thread_.request_stop();
    shutdown(listener_.get(), SHUT_RDWR);
  }
  std::string path() const { return folder_.path() / "peer"; }

 private:
  void serve(const unique_fd &peer, const std::stop_token &stop) const {
    const timeval often{0, 20'000};
    setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &often, sizeof often);
    char buffer[4096];
    for (size_t next = 0; peer && !stop.stop_requested();) {
      const ssize_t got = recv(peer.get(), buffer, sizeof buffer, 0);
      if (got < 0 && errno == EAGAIN) continue;
      if (got <= 0) return;
      if (next == texts_.size()) continue;
      const std::string &text = texts_[next++];
      const bool in_drops = next == texts_.size() && last_ == manner::in_drops;
      const size_t step = in_drops ? 1 : text.size();
      for (size_t at = 0; !stop.stop_requested() && at < text.size(); at += step) {
        if (send(peer.get(), &text[at], step, MSG_NOSIGNAL) < 0) return;
        if (step == 1) std::this_thread::sleep_for(50ms);
      }
    }
  }

  support::private_folder folder_{"peer"};
  std::vector<std::string> texts_;
  manner last_;
  unique_fd listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::jthread thread_;
};

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

TEST(VelkanTrouble, AReplicaIsPassedOverAndAFailOverIsFollowed) {
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
  EXPECT_LT(seconds_of([&] { EXPECT_EQ(client.set("h", "f", "v"), VK_OK); }), 0.45);
}

TEST(VelkanTrouble, AReplyOfAnotherTypeIsAnError) {
  const scripted_peer peer({greeting, "*1\r\n$1\r\nx\r\n"}, manner::at_once);
  EXPECT_EQ(cache_client({peer.path()}).get("h", "f"), VK_ERR_REPLY);
}

// What else such a peer says is the business of the fuzz target cache_reply.
TEST(VelkanTrouble, APeerThatKeepsItsClientWaitingCostsLittle) {
  const struct {
    const char *name;
    std::vector<std::string> texts;
    manner last;
    double limit;  // of the first command, in seconds
  } rows[] = {
      {"silence", {}, manner::at_once, 0.7},
      {"a text that never comes", {"$2147483647\r\nabc"}, manner::at_once, 0.7},
      {"a greeting in drops", {std::string(greeting) + greeting}, manner::in_drops, 0.7},
      {"a line without an end", {greeting, "+" + std::string(64 << 20, 'x')}, manner::at_once, 0.7},
      {"silence after the greeting", {greeting}, manner::at_once, 2.2},
      {"an answer in drops", {greeting, "$99\r\n" + std::string(200, 'x')}, manner::in_drops, 2.2}};
  std::vector<std::jthread> all;  // at once, as most of them wait
  for (const auto &row : rows) {
    all.emplace_back([&row] {
      const scripted_peer peer(row.texts, row.last);
      const cache_client client({peer.path()});
      const auto seconds_of_one = [&] {
        return seconds_of([&] { EXPECT_NE(client.get("h", "f"), VK_OK) << row.name; });
      };
      EXPECT_LT(seconds_of_one(), row.limit) << row.name;
      EXPECT_LT(seconds_of_one(), 0.15) << row.name << ": it was asked again at once";
    });
  }
}

}  // namespace
