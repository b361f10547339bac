// The cache client beside servers that fail over, refuse, hang, die and talk garbage.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "velkan/group.h"
#include "velkan_fixture.h"

using namespace std::chrono_literals;
using support::redis_server;
using support::seconds_of;

namespace {

void wait_for_link(const redis_server &replica) {
  for (int i = 0; i < 500; i++) {
    if (ask(replica, {"INFO", "replication"}).find("master_link_status:up") != std::string::npos) {
      return;
    }
    std::this_thread::sleep_for(20ms);
  }
  FAIL() << "the replica did not find its master";
}

support::redis_options over_tcp() {
  return {.tcp = true};
}

constexpr const char *greeting = "*3\r\n$6\r\nmaster\r\n:0\r\n*0\r\n+OK\r\n";

// What a peer sends: one text each time that something comes, whatever that is; then silence.
struct script {
  std::vector<std::string> texts;  // at an empty one it hangs up
  bool drip = false;               // the last text goes a byte at a time
};

class scripted_peer {
 public:
  explicit scripted_peer(script what) : script_(std::move(what)) {
    sockaddr_un address{AF_UNIX, {}};
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_.get(), 16) != 0) {
      throw std::runtime_error("cannot listen on " + path());
    }
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
      if (next == script_.texts.size()) continue;
      const std::string &text = script_.texts[next++];
      if (text.empty()) return;
      const bool drip = script_.drip && next == script_.texts.size();
      for (size_t at = 0; !stop.stop_requested() && at < text.size();
           at += drip ? 1 : text.size()) {
        if (send(peer.get(), &text[at], drip ? 1 : text.size(), MSG_NOSIGNAL) < 0) return;
        if (drip) std::this_thread::sleep_for(50ms);
      }
    }
  }

  support::private_folder folder_{"peer"};
  script script_;
  unique_fd listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::jthread thread_;
};

}  // namespace

TEST(VelkanTrouble, TheKeyIsSentOnEveryConnectAndAWrongOneIsNoServer) {
  support::redis_options options = over_tcp();
  options.password = "right";
  redis_server server(options);
  const cache_client right({server.socket()}, "right"), wrong({server.socket()}, "wrong"),
      none({server.socket()}), tcp({}, "right");
  ASSERT_EQ(tcp.add("127.0.0.1", server.port()), VK_OK);
  EXPECT_EQ(right.set("h", "f", "v"), VK_OK);
  EXPECT_EQ(tcp.get("h", "f"), VK_OK);
  EXPECT_EQ(wrong.get("h", "f"), VK_ERR_DOWN);
  EXPECT_EQ(none.get("h", "f"), VK_ERR_DOWN);
  server.stop();
  server.start();
  EXPECT_EQ(right.set("h", "f", "v"), VK_OK) << "a restart is not the caller's business";
}

TEST(VelkanTrouble, AReplicaIsPassedOverAndAFailOverIsFollowed) {
  const redis_server first(over_tcp());
  support::redis_options replica = over_tcp();
  replica.master_host = "127.0.0.1";
  replica.master_port = first.port();
  redis_server second(replica);
  wait_for_link(second);
  const cache_client client({second.socket(), first.socket()});
  ASSERT_EQ(client.set("h", "f", "1"), VK_OK);

  // By hand: the roles change while the connection stays.
  const std::string port = std::to_string(second.port());
  ask(second, {"REPLICAOF", "NO", "ONE"});
  ask(first, {"REPLICAOF", "127.0.0.1", port.c_str()});
  wait_for_link(first);
  EXPECT_EQ(client.set("h", "f", "2"), VK_OK);
  optional_text value;
  EXPECT_EQ(client.get("h", "f", value), VK_OK);
  EXPECT_EQ(value, "2");

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

TEST(VelkanTrouble, ADeadServerCostsNothingAndIsFoundAgainAfterThePause) {
  signal(SIGPIPE, SIG_DFL);  // the end of a peer must not end the process
  redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  server.kill_hard();
  const double spent = seconds_of([&] {
    for (int i = 0; i < 1000; i++) EXPECT_NE(client.get("h", "f"), VK_OK);
  });
  EXPECT_LT(spent, 0.2);
  server.start();
  std::this_thread::sleep_until(client.handle()->state->paused_until);
  EXPECT_EQ(client.get("h", "f"), VK_OK);
}

TEST(VelkanTrouble, AHangingServerCostsOneTimeoutAndThenLittleAfterGrowingPauses) {
  redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  server.pause();
  vk_state &state = *client.handle()->state;
  const struct {
    int failures;  // before
    double spent, pause;
  } rows[] = {{0, 2.0, 1}, {1, 0.2, 2}, {5, 0.2, 32}, {6, 0.2, 60}, {40, 0.2, 60}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.failures << " failures before");
    state.failures = row.failures;
    EXPECT_NEAR(seconds_of([&] { EXPECT_NE(client.get("h", "f"), VK_OK); }), row.spent, 0.15);
    EXPECT_LT(seconds_of([&] { EXPECT_EQ(client.get("h", "f"), VK_ERR_DOWN); }), 0.1);
    const std::chrono::duration<double> pause = state.paused_until - vk_clock::now();
    EXPECT_NEAR(pause.count(), row.pause, 0.4);
    EXPECT_EQ(state.failures, row.failures + 1);
    state.paused_until = {};
  }
  server.resume();
  EXPECT_EQ(client.get("h", "f"), VK_OK);
  EXPECT_EQ(state.failures, 0) << "after a success it is trusted as before";
}

TEST(VelkanTrouble, APeerThatIsNoCacheCostsLittleAndNeverAnswers) {
  signal(SIGPIPE, SIG_DFL);
  const std::string proven = std::string(greeting) + greeting;
  const struct {
    const char *name;
    script peer;
    double limit;  // of the first command, in seconds
  } rows[] = {
      {"silence", {}, 0.7},
      {"another protocol", {{"HTTP/1.1 400 Bad Request\r\n\r\n"}}, 0.2},
      {"the wrong types", {{":1\r\n:1\r\n", ":1\r\n"}}, 0.2},
      {"a list that cannot be", {{"*2147483647\r\n"}}, 0.2},
      {"a text that never comes", {{"$2147483647\r\nabc"}}, 0.7},
      {"a hang-up", {{""}}, 0.2},
      {"a greeting in drops", {{proven}, true}, 0.7},
      {"one reply too many", {{std::string(greeting) + "$1\r\nx\r\n", "$1\r\ny\r\n"}}, 0.2},
      {"a hang-up after the greeting", {{greeting, ""}}, 0.2},
      {"a list after the greeting", {{greeting, "*1\r\n$1\r\nx\r\n", "*0\r\n"}}, 0.2},
      {"silence after the greeting", {{greeting}}, 2.2},
      {"an answer in drops", {{greeting, "$99\r\n" + std::string(200, 'x')}, true}, 2.2},
  };
  std::vector<std::jthread> all;  // at once, as most of them wait
  for (const auto &row : rows) {
    all.emplace_back([&row] {
      const scripted_peer peer(row.peer);
      const cache_client client({peer.path()});
      optional_text value;
      EXPECT_LT(seconds_of([&] { EXPECT_NE(client.get("h", "f", value), VK_OK) << row.name; }),
                row.limit)
          << row.name;
      EXPECT_EQ(value, std::nullopt) << row.name;
      EXPECT_LT(seconds_of([&] { EXPECT_NE(client.get("h", "f"), VK_OK) << row.name; }), 0.15)
          << row.name << ": it was asked again at once";
    });
  }
}

TEST(VelkanTrouble, AnAnswerInDropsIsHeldToTheTimeoutOnAProvenConnectionToo) {
  const scripted_peer peer({{greeting, "$1\r\nv\r\n", "$999\r\n" + std::string(99, 'x')}, true});
  const cache_client client({peer.path()});
  optional_text value;
  ASSERT_EQ(client.get("h", "f", value), VK_OK);
  EXPECT_EQ(value, "v");
  EXPECT_NEAR(seconds_of([&] { EXPECT_EQ(client.get("h", "f", value), VK_ERR_IO); }), 2.0, 0.2);
}
