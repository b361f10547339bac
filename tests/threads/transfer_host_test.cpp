// Hosts and the socket of the transfer service: who ends which download, and when.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <grp.h>

#include <condition_variable>
#include <thread>

#include <spoolcap/transfer.h>
#include "main/transfer/wire.h"
#include "platform/base/deadline.h"
#include "platform/base/ids.h"
#include "tests/unit/storage_fixture.h"
#include "transfer/server.h"

namespace {

const std::string place = "eu@n1";

// The server of the service, with the test in place of the store.
class serving {
 public:
  explicit serving(const std::string &path) {
    const std::string refused = server_.start(path);
    if (!refused.empty()) throw std::runtime_error(refused);
  }

  // The next order, in the order of their coming.
  download_order next() {
    std::unique_lock guard(lock_);
    come_.wait(guard, [this] { return !orders_.empty(); });
    download_order order = std::move(orders_.front());
    orders_.pop_front();
    return order;
  }
  void wait_until_told(int times) {
    std::unique_lock guard(lock_);
    come_.wait(guard, [=, this] { return told_ >= times; });
  }
  void stop() { server_.stop(); }

  std::string state = "{}";

 private:
  std::mutex lock_;  // guards the next three
  std::condition_variable come_;
  std::deque<download_order> orders_;
  int told_ = 0;
  transfer_server server_{{.download =
                               [this](download_order order) {
                                 const std::lock_guard guard(lock_);
                                 orders_.push_back(std::move(order));
                                 come_.notify_all();
                               },
                           .queued =
                               [this] {
                                 const std::lock_guard guard(lock_);
                                 ++told_;
                                 come_.notify_all();
                               },
                           .status = [this] { return state; }}};
};

// What the service says next.
receiving hear(const unique_fd &socket, transfer_message &message) {
  const deadline patience(30);
  EXPECT_TRUE(wait_ready(socket.get(), POLLIN, &patience));
  return receive_message(socket.get(), message);
}

void write_whole(const download_order &order, const std::string &content) {
  EXPECT_EQ(::pwrite(order.target.get(), content.data(), content.size(), 0),
            static_cast<ssize_t>(content.size()));
  order.done(true);
}

class TransferHost : public storage_test {
 protected:
  TransferHost() : storage_test("s3") {
    box.write_file("etc/quorvexnode/nodeid", "n1\n");
    box.write_file("etc/quorvex/transfer.conf",
                   "TRANSFER_LOCATION eu http://127.0.0.1:1 eu-1 media\n");
    EXPECT_EQ(qx_transfer_start(), 0);
  }
  ~TransferHost() override { qx_transfer_stop(); }

  static storage_session fetch(const std::string &key) {
    return storage_session(
        qx_storage_session_retrieve(QX_STORAGE_RECORDING, key.c_str(), "s3", place.c_str()));
  }
  static std::vector<storage_session> fetch_all(const std::string &folder, std::size_t count) {
    std::vector<storage_session> sessions(count);
    for (auto &one : sessions) one = fetch(folder + "/" + std::to_string(&one - sessions.data()));
    return sessions;
  }
  static int end_of(const storage_session &session) {
    return qx_storage_wait_for_file(session.get());
  }
  static int state_of(const storage_session &session) {
    return qx_storage_get_session_status(session.get());
  }
  // A service in a process of its own, that never ends a download. It is there on return.
  std::unique_ptr<support::background_process> deaf_service() const {
    auto made = std::make_unique<support::background_process>([this] {
      const serving daemon(path);
      return ::pause() == 0;
    });
    while (!connect_to_service(path)) std::this_thread::yield();
    return made;
  }

  const std::string path = box.path("run/spoolcap/transfer.sock");
};

TEST_F(TransferHost, ADownloadEndsAsTheServiceSays) {
  serving daemon(path);
  const storage_session good = fetch("rc/1/2/1.wav"), bad = fetch("rc/1/2/2.wav");
  download_order first = daemon.next(), second = daemon.next();
  EXPECT_EQ(first.location_text + " " + first.key, place + " rc/1/2/1.wav");
  second.done(false);
  EXPECT_EQ(end_of(bad), QX_STORAGE_FAILED);
  EXPECT_EQ(state_of(good), QX_STORAGE_PENDING);
  write_whole(first, "content");
  EXPECT_EQ(end_of(good), QX_STORAGE_READY);
  EXPECT_EQ(box.read_file(qx_storage_get_file_path(good.get())), "content");
}

TEST_F(TransferHost, WithoutTheServiceFilesAreStoredAndDownloadsRefused) {
  for (const bool is_first : {true, false}) {
    EXPECT_EQ(state_of(fetch("rc/1/2/absent.wav")), QX_STORAGE_FAILED);
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "x"), 0);
    EXPECT_EQ(row("recording", 7), "rc/1/2/7.wav|s3|eu@n1");
    serving daemon(path);
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, 8, "x"), 0);
    daemon.wait_until_told(1);
    const storage_session found = fetch("rc/1/2/" + std::to_string(is_first) + ".wav");
    write_whole(daemon.next(), "");
    EXPECT_EQ(end_of(found), QX_STORAGE_READY) << "it came back without a restart of the host";
  }
  EXPECT_EQ(log.count("Cannot reach the transfer service at [" + path), 2U) << "once per absence";
  EXPECT_EQ(state_of(storage_session(qx_storage_session_retrieve(1, "k", "s3", nullptr))),
            QX_STORAGE_FAILED)
      << "its row does not say where it is";
}

TEST_F(TransferHost, AKilledServiceEndsAllItsDownloadsOnce) {
  for (int round = 0; round < 3; ++round) {
    const auto daemon = deaf_service();
    const auto before = fetch_all("a", 50);
    daemon->kill(SIGKILL);
    const auto meanwhile = fetch_all("b", 30);
    for (const storage_session &one : before) EXPECT_EQ(end_of(one), QX_STORAGE_FAILED);
    for (const storage_session &one : meanwhile) EXPECT_EQ(end_of(one), QX_STORAGE_FAILED);
  }
  serving daemon(path);
  const storage_session found = fetch("rc/1/2/7.wav");
  write_whole(daemon.next(), "x");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY) << "the socket of a dead service is taken over";
}

TEST_F(TransferHost, StoppingEndsAllDownloadsAndStartingBeginsAnew) {
  serving daemon(path);
  for (int round = 0; round < 3; ++round) {
    const auto sessions = fetch_all("rc", 20);
    const storage_session unwritten = written(QX_STORAGE_RECORDING, "wav", "x");
    qx_transfer_stop();
    for (const storage_session &one : sessions) EXPECT_EQ(state_of(one), QX_STORAGE_FAILED);
    for (int i = 0; i < 20; ++i) daemon.next().done(true);  // too late
    EXPECT_EQ(qx_storage_commit_file(unwritten.get(), 7), 0) << "its location is known";
    EXPECT_EQ(fetch("rc/1/2/1.wav"), nullptr);
    qx_transfer_stop();
    EXPECT_EQ(qx_transfer_start(), 0);
  }
  log.expect(FR_LOG_ERROR, "TRANSFER_LOCATION is missing");
  box.write_file("etc/quorvex/transfer.conf", "");
  EXPECT_EQ(qx_transfer_start(), -1);
  const storage_session found = fetch("rc/1/2/1.wav");
  write_whole(daemon.next(), "");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY) << "the earlier configuration stays";
}

TEST_F(TransferHost, AChildOfForkHasAConnectionOfItsOwn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer cannot follow threads that a child of threads begins";
#endif
  serving daemon(path);
  const storage_session ours = fetch("rc/1/2/1.wav");
  const download_order order = daemon.next();
  support::background_process child([] {
    const storage_session theirs = fetch("rc/1/2/2.wav");
    return end_of(theirs) == QX_STORAGE_READY && (qx_transfer_stop(), true);
  });
  write_whole(daemon.next(), "theirs");
  EXPECT_EQ(child.wait(std::chrono::seconds(30))->status, 0);
  EXPECT_EQ(state_of(ours), QX_STORAGE_PENDING);
  write_whole(order, "ours");
  EXPECT_EQ(end_of(ours), QX_STORAGE_READY);
}

TEST_F(TransferHost, WhatIsNotUnderstoodEndsItsConnectionOnly) {
  serving daemon(path);
  const storage_session found = fetch("rc/1/2/1.wav");
  const download_order order = daemon.next();
  const std::string good = encode_message({.word = transfer_word::queued});
  const auto changed = [&good](std::size_t at, char byte) {
    std::string datagram = good;
    datagram[at] = byte;
    return datagram;
  };
  const std::string wrong[] = {good.substr(1),
                               good + "x",
                               changed(0, 1),
                               changed(4, 9),
                               changed(8, 77),
                               changed(24, 1),
                               changed(27, '\x7f'),
                               encode_message({.word = transfer_word::done}),
                               std::string(longest_datagram + 1, 'x')};
  for (const std::string &datagram : wrong) {
    const unique_fd host = connect_to_service(path);
    EXPECT_EQ(send_datagram(host.get(), datagram), 0);
    transfer_message answer;
    EXPECT_EQ(hear(host, answer), receiving::ended);
  }
  EXPECT_EQ(log.count("closed a connection that said what is not understood"), std::size(wrong));
  write_whole(order, "");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY);
}

TEST_F(TransferHost, OnlyAnEmptyFileThatCanBeReadAndWrittenIsATarget) {
  serving daemon(path);
  box.write_file("full", "x");
  box.write_file("empty", "");
  const std::string empty = box.path("empty");
  const unique_fd targets[] = {unique_fd(), unique_fd(::open(empty.c_str(), O_WRONLY)),
                               unique_fd(::open(empty.c_str(), O_RDWR | O_APPEND)),
                               unique_fd(::open(box.path("full").c_str(), O_RDWR)),
                               unique_fd(::open("/dev/null", O_RDWR))};
  const unique_fd host = connect_to_service(path);
  for (const unique_fd &target : targets) {
    const std::string order =
        encode_message({.word = transfer_word::download, .id = 5, .first = place, .second = "k"});
    EXPECT_EQ(send_datagram(host.get(), order, target.get()), 0);
    transfer_message answer;
    EXPECT_EQ(hear(host, answer), receiving::message);
    EXPECT_EQ(answer.word, transfer_word::done);
    EXPECT_EQ(answer.id, 5U);
    EXPECT_EQ(answer.status, QX_STORAGE_FAILED);
  }
}

TEST_F(TransferHost, ASlowReaderOfTheStateHoldsNobodyUp) {
  serving daemon(path);
  daemon.state = std::string(5'000'000, 's');
  const unique_fd reader = connect_to_service(path);
  EXPECT_EQ(send_datagram(reader.get(), encode_message({.word = transfer_word::status})), 0);
  const storage_session found = fetch("rc/1/2/1.wav");
  write_whole(daemon.next(), "");
  EXPECT_EQ(end_of(found), QX_STORAGE_READY);
  std::string text;
  for (transfer_message piece;;) {
    ASSERT_EQ(hear(reader, piece), receiving::message);
    if (piece.first.empty()) break;
    text += piece.first;
  }
  EXPECT_EQ(text, daemon.state);
}

TEST_F(TransferHost, TheSocketBelongsToOneServiceAndItsGroup) {
  {
    serving daemon(path);
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0660U);
    EXPECT_THROW(serving second(path), std::runtime_error);
    if (::geteuid() == 0) {
      EXPECT_EQ(::chmod(path.c_str(), 0666), 0);
      const auto is_let_in = [this](uid_t user, gid_t group) {
        return support::run_forked([&] {
                 const std::string folder =
                     box.path("run/spoolcap");  // others may not go there by path
                 if (::chdir(folder.c_str()) != 0 || ::setgroups(1, &group) != 0 ||
                     ::setgid(4321) != 0 || ::setuid(user) != 0) {
                   return false;
                 }
                 const unique_fd host = connect_to_service("transfer.sock");
                 const std::string question = encode_message({.word = transfer_word::status});
                 if (!host) return false;
                 send_datagram(host.get(), question);
                 transfer_message answer;
                 return hear(host, answer) == receiving::message;
               }) == 0;
      };
      uid_t user = 0;
      gid_t group = 0;
      ASSERT_EQ(get_ids("asterisk", "asterisk", &user, &group), 0);
      EXPECT_FALSE(is_let_in(4321, 4321));
      EXPECT_TRUE(log.has("refused a connection of a user that is not trusted"));
      EXPECT_TRUE(is_let_in(4321, group));
      EXPECT_TRUE(is_let_in(user, 4321));
    }
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  box.write_file("run/spoolcap/transfer.sock", "a file of somebody's");
  EXPECT_THROW(serving second(path), std::runtime_error);
}

}  // namespace
