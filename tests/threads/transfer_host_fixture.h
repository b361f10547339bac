// A host beside the server of the service, with the test in place of the store.
#ifndef TESTS_THREADS_TRANSFER_HOST_FIXTURE_H
#define TESTS_THREADS_TRANSFER_HOST_FIXTURE_H

#include <unistd.h>

#include <condition_variable>
#include <thread>

#include <spoolcap/transfer.h>
#include "main/transfer/wire.h"
#include "tests/unit/storage_fixture.h"
#include "transfer/server.h"

inline const std::string place = "eu@n1";

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

inline void write_whole(const download_order &order, const std::string &content) {
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

#endif
