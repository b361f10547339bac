// The cache client beside servers that fail over, refuse, hang, die and talk garbage.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "velkan_fixture.h"

using namespace std::chrono_literals;
using support::redis_server;

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
  return std::chrono::duration<double>(clock_type::now() - start).count();
}

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
  support::redis_options options;
  options.tcp = true;
  return options;
}

support::redis_options replica_of(const redis_server &master) {
  support::redis_options options = over_tcp();
  options.master_host = "127.0.0.1";
  options.master_port = master.port();
  return options;
}

// A peer that sends what it is told to, whatever it is asked: `greeting` once something came, and
// `answer` for all that comes later, a byte at a time when `drip` is set. An empty text is silence.
struct script {
  std::string greeting;
  std::string answer;
  bool drip = false;
  bool hang_up = false;           // after the last text
  std::string first_answer = {};  // sent whole, before the others
};

class scripted_peer {
 public:
  explicit scripted_peer(script what) : script_(std::move(what)) {
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path().c_str(), sizeof address.sun_path - 1);
    if (bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_.get(), 16) != 0) {
      throw std::runtime_error("cannot listen on " + path());
    }
    thread_ = std::thread([this] { serve(); });
  }
  scripted_peer(const scripted_peer &) = delete;
  scripted_peer &operator=(const scripted_peer &) = delete;
  ~scripted_peer() {
    stop_ = true;
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }
  std::string path() const { return folder_.path() / "peer"; }

 private:
  void serve() {
    while (!stop_) {
      const unique_fd peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!peer) continue;
      const timeval often{0, 20'000};
      setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &often, sizeof often);
      if (!await(peer.get()) ||
          !say(peer.get(), script_.greeting, script_.drip && script_.first_answer.empty()))
        continue;
      if (!script_.first_answer.empty() &&
          !(await(peer.get()) && say(peer.get(), script_.first_answer, false))) {
        continue;
      }
      if (script_.answer.empty() && script_.hang_up) continue;
      while (await(peer.get()) && say(peer.get(), script_.answer, script_.drip) && !script_.hang_up)
        continue;
    }
  }

  // Until something comes; false when the other side is gone.
  bool await(int peer) const {
    char buffer[4096];
    while (!stop_) {
      const ssize_t got = recv(peer, buffer, sizeof buffer, 0);
      if (got > 0) return true;
      if (got == 0 || errno != EAGAIN) return false;
    }
    return false;
  }

  bool say(int peer, const std::string &text, bool drip) const {
    for (size_t at = 0; !stop_ && at < text.size();) {
      const ssize_t sent = send(peer, text.data() + at, drip ? 1 : text.size() - at, MSG_NOSIGNAL);
      if (sent < 0) return false;
      at += static_cast<size_t>(sent);
      if (drip) std::this_thread::sleep_for(50ms);
    }
    return true;
  }

  support::private_folder folder_{"peer"};
  script script_;
  unique_fd listener_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
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
  const auto start = clock_type::now();
  for (int i = 0; i < 100; i++) {
    EXPECT_EQ(wrong.get("h", "f"), VK_ERR_DOWN);
    EXPECT_EQ(none.get("h", "f"), VK_ERR_DOWN);
  }
  EXPECT_LT(seconds_since(start), 0.5);
  server.stop();
  server.start();
  EXPECT_EQ(right.set("h", "f", "v"), VK_OK) << "a restart is not the caller's business";
}

TEST(VelkanTrouble, AReplicaIsPassedOverAndAFailOverIsFollowed) {
  redis_server first(over_tcp());
  redis_server second(replica_of(first));
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
  wait_for_link(first);
  second.kill_hard();
  ask(first, {"REPLICAOF", "NO", "ONE"});
  EXPECT_EQ(client.set("h", "f", "3"), VK_OK);
}

TEST(VelkanTrouble, AServerThatHangsDoesNotHideTheNext) {
  redis_server hanging;
  const redis_server serving;
  hanging.pause();
  const cache_client client({hanging.socket(), serving.socket()});
  const auto start = clock_type::now();
  EXPECT_EQ(client.set("h", "f", "v"), VK_OK);
  EXPECT_LT(seconds_since(start), 0.45);
}

TEST(VelkanTrouble, ADeadServerCostsNothingAndIsFoundAgainAfterThePause) {
  signal(SIGPIPE, SIG_DFL);  // the end of a peer must not end the process
  redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  server.kill_hard();
  const auto start = clock_type::now();
  for (int i = 0; i < 1000; i++) EXPECT_NE(client.get("h", "f"), VK_OK);
  EXPECT_LT(seconds_since(start), 0.2);
  server.start();
  while (client.get("h", "f") != VK_OK && seconds_since(start) < 5) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_LT(seconds_since(start), 2.0) << "the first pause is one second";
}

// A server that hangs for good costs 2 s, and then 200 ms after pauses of 1, 2, 4, 8, 16, 32 and 60
// s: over ten minutes 4.8 s. This watches the first seven seconds of that.
TEST(VelkanTrouble, AHangingServerCostsOneTimeoutAndThenLittleAfterGrowingPauses) {
  redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  server.pause();
  std::vector<double> waits;
  const auto start = clock_type::now();
  while (seconds_since(start) < 7) {
    const auto before = clock_type::now();
    EXPECT_NE(client.get("h", "f"), VK_OK);
    const double spent = seconds_since(before);
    if (spent > 0.05) waits.push_back(spent);
    std::this_thread::sleep_for(5ms);
  }
  ASSERT_EQ(waits.size(), 3U);
  EXPECT_NEAR(waits[0], 2.0, 0.2);
  EXPECT_NEAR(waits[1], 0.2, 0.1);
  EXPECT_NEAR(waits[2], 0.2, 0.1);
  server.resume();
  while (client.get("h", "f") != VK_OK && seconds_since(start) < 20) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_LT(seconds_since(start), 11.0) << "the third pause is four seconds";
  server.pause();
  const auto again = clock_type::now();
  EXPECT_EQ(client.get("h", "f"), VK_ERR_IO);
  EXPECT_NEAR(seconds_since(again), 2.0, 0.2) << "after a success it is trusted as before";
}

TEST(VelkanTrouble, APeerThatIsNoCacheCostsLittleAndNeverAnswers) {
  signal(SIGPIPE, SIG_DFL);
  const std::string greeting = "*3\r\n$6\r\nmaster\r\n:0\r\n*0\r\n+OK\r\n";
  struct {
    const char *name;
    script peer;
    double limit;  // of the first command, in seconds
  } const rows[] = {
      {"silence", {}, 0.7},
      {"another protocol", {"HTTP/1.1 400 Bad Request\r\n\r\n", ""}, 0.2},
      {"the wrong types", {":1\r\n:1\r\n", ":1\r\n"}, 0.2},
      {"a list that cannot be", {"*2147483647\r\n", ""}, 0.2},
      {"a text that never comes", {"$2147483647\r\nabc", ""}, 0.7},
      {"a hang-up", {"", "", false, true}, 0.2},
      {"half a greeting", {greeting.substr(0, 9), "", false, true}, 0.2},
      {"a greeting in drops", {greeting + greeting, "", true}, 0.7},
      {"one reply too many", {greeting + "$1\r\nx\r\n", "$1\r\ny\r\n"}, 0.2},
      {"silence after the greeting", {greeting, ""}, 2.2},
      {"a hang-up after the greeting", {greeting, "", false, true}, 0.2},
      {"garbage after the greeting", {greeting, "?\r\n"}, 0.2},
      {"a list after the greeting", {greeting, "*1\r\n$1\r\nx\r\n"}, 0.2},
      {"an answer in drops", {greeting, "$99\r\n" + std::string(200, 'x'), true}, 2.2},
  };
  for (const auto &row : rows) {
    scripted_peer peer(row.peer);
    const cache_client client({peer.path()});
    auto start = clock_type::now();
    optional_text value;
    EXPECT_NE(client.get("h", "f", value), VK_OK) << row.name;
    EXPECT_EQ(value, std::nullopt) << row.name;
    EXPECT_LT(seconds_since(start), row.limit) << row.name;
    start = clock_type::now();
    for (int i = 0; i < 20; i++) client.get("h", "f");
    EXPECT_LT(seconds_since(start), 0.05) << row.name << ": it was asked again at once";
  }
}

TEST(VelkanTrouble, AnAnswerInDropsIsHeldToTheTimeoutOnAProvenConnectionToo) {
  scripted_peer peer({"*3\r\n$6\r\nmaster\r\n:0\r\n*0\r\n+OK\r\n",
                      "$999\r\n" + std::string(99, 'x'), true, false, "$1\r\nv\r\n"});
  const cache_client client({peer.path()});
  optional_text value;
  ASSERT_EQ(client.get("h", "f", value), VK_OK);
  EXPECT_EQ(value, "v");
  const auto start = clock_type::now();
  EXPECT_EQ(client.get("h", "f", value), VK_ERR_IO);
  EXPECT_NEAR(seconds_since(start), 2.0, 0.2);
}
