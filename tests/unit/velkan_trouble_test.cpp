// The cache client beside servers that fail over, refuse, hang, die and talk garbage.
#include <sys/socket.h>
#include <sys/un.h>

#include <thread>

#include "velkan/group.h"
#include "velkan_fixture.h"

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

// A peer that sends one text each time that something comes, whatever that is; then silence. At an
// empty text it hangs up; `drip`: the last one goes a byte at a time.
class scripted_peer {
 public:
  scripted_peer(const std::vector<std::string> &texts, bool drip) : texts_(texts), drip_(drip) {
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
      if (text.empty()) return;
      const size_t step = drip_ && next == texts_.size() ? 1 : text.size();
      for (size_t at = 0; !stop.stop_requested() && at < text.size(); at += step) {
        if (send(peer.get(), &text[at], step, MSG_NOSIGNAL) < 0) return;
        if (step == 1) std::this_thread::sleep_for(50ms);
      }
    }
  }

  support::private_folder folder_{"peer"};
  std::vector<std::string> texts_;
  bool drip_;
  unique_fd listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::jthread thread_;
};

}  // namespace

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

TEST(VelkanTrouble, AHangingServerCostsOneTimeoutAndThenLittleAndIsFoundAgainAfterGrowingPauses) {
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

  signal(SIGPIPE, SIG_DFL);  // the end of a server must not end the process
  server.kill_hard();
  const double spent = seconds_of([&] {
    for (int i = 0; i < 1000; i++) EXPECT_NE(client.get("h", "f"), VK_OK);
  });
  EXPECT_LT(spent, 0.2) << "one that is dead costs nothing";
  server.start();
  std::this_thread::sleep_until(state.paused_until);
  EXPECT_EQ(client.get("h", "f"), VK_OK);
}

TEST(VelkanTrouble, APeerThatIsNoCacheCostsLittleAndNeverAnswers) {
  signal(SIGPIPE, SIG_DFL);
  const struct {
    const char *name;
    std::vector<std::string> texts;
    bool drip;
    double limit;  // of the first command, in seconds
  } rows[] = {
      {"silence", {}, false, 0.7},
      {"another protocol", {"HTTP/1.1 400 Bad Request\r\n\r\n"}, false, 0.2},
      {"the wrong types", {":1\r\n:1\r\n", ":1\r\n"}, false, 0.2},
      {"a text that never comes", {"$2147483647\r\nabc"}, false, 0.7},
      {"a greeting in drops", {std::string(greeting) + greeting}, true, 0.7},
      {"one reply too many", {std::string(greeting) + "$1\r\nx\r\n", "$1\r\ny\r\n"}, false, 0.2},
      {"a hang-up after the greeting", {greeting, ""}, false, 0.2},
      {"a list after the greeting", {greeting, "*1\r\n$1\r\nx\r\n", "*0\r\n"}, false, 0.2},
      {"silence after the greeting", {greeting}, false, 2.2},
      {"an answer in drops", {greeting, "$99\r\n" + std::string(200, 'x')}, true, 2.2}};
  std::vector<std::jthread> all;  // at once, as most of them wait
  for (const auto &row : rows) {
    all.emplace_back([&row] {
      const scripted_peer peer(row.texts, row.drip);
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
