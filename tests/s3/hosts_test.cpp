// Hosts, the daemon and a real store together.
#include <sys/resource.h>

#include <spoolcap/transfer.h>
#include "tests/support/faulty_proxy.h"
#include "tests/support/object_store.h"
#include "tests/support/transfer_daemon.h"
#include "tests/unit/storage_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class Hosts : public storage_test {
 protected:
  Hosts() : storage_test("s3") {
    EXPECT_EQ(qx_storage_load_config(base.c_str(), nullptr), 0);
    EXPECT_EQ(qx_transfer_start(), 0);
    box.sql(
        "INSERT INTO extension_recording (id, extension_id) SELECT seq, 1 FROM seq_100_to_1099");
  }
  ~Hosts() override { qx_transfer_stop(); }

  void drain() { EXPECT_EQ(daemon.run({"--drain", "60"}).status, 0); }
  void empty_cache() const { fs::remove_all(box.path("cache/main")); }

  static std::string content(int id) {
    return std::string(static_cast<size_t>(id) % 97, 'x') + std::to_string(id);
  }
  bool fetch_all(int first, int count) const {
    std::vector<storage_session> sessions(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
      sessions[static_cast<size_t>(i)] = order(first + i);
    }
    bool are_good = true;
    for (int i = 0; i < count; ++i) {
      qx_storage_session_t *one = sessions[static_cast<size_t>(i)].get();
      are_good = qx_storage_wait_for_file(one) == QX_STORAGE_READY && are_good &&
                 box.read_file(qx_storage_get_file_path(one)) == content(first + i);
    }
    return are_good;
  }

  storage_session order(int id) const {
    const std::string name = "rc/1/2/" + std::to_string(id) + ".wav";
    return storage_session(
        qx_storage_session_retrieve(QX_STORAGE_RECORDING, name.c_str(), "s3", "eu@n1"));
  }
  static int end_of(const storage_session &one) { return qx_storage_wait_for_file(one.get()); }
  // The store is reached by way of a proxy.
  void go_through(const support::faulty_proxy &proxy) {
    const char *const file = "etc/quorvex/transfer.conf";
    std::string text = box.read_file(file).value();
    text.replace(text.find(place.endpoint), place.endpoint.size(), proxy.endpoint());
    box.write_file(file, text);
  }

  const s3_place place = support::new_bucket(support::shared_object_store());
  support::transfer_daemon daemon{box, place};
};

TEST_F(Hosts, AThousandFilesOfFourHostsComeAndGoAtOnce) {
  constexpr int hosts = 4, files_of_each = 250;
  const auto in_each_host = [](const std::function<bool(int first)> &work) {
    std::vector<std::unique_ptr<support::background_process>> all(hosts);
    for (int i = 0; i < hosts; ++i) {
      all[static_cast<size_t>(i)] = std::make_unique<support::background_process>(
          [=] { return work(100 + i * files_of_each); });
    }
    for (const auto &one : all) EXPECT_EQ(one->wait(90s).value().status, 0);
  };
  ASSERT_TRUE(daemon.start());
  in_each_host([](int first) {
    for (int id = first; id < first + files_of_each; ++id) {
      if (stored(QX_STORAGE_RECORDING, id, content(id)) != 0) return false;
    }
    return true;
  });
  drain();
  EXPECT_EQ(members("up"), "");
  empty_cache();
  in_each_host([this](int first) { return fetch_all(first, files_of_each); });
  EXPECT_EQ(files("cache/main").size(), static_cast<size_t>(hosts * files_of_each));
}

TEST_F(Hosts, AKilledDaemonLosesNothingAndIsFoundAgain) {
  ASSERT_TRUE(daemon.start());
  for (const int id : {7, 8}) {
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, id, content(id)), 0);
    daemon.stop(SIGKILL);
    EXPECT_FALSE(fetch_all(1, 1));
    ASSERT_TRUE(daemon.start());
  }
  drain();
  empty_cache();
  EXPECT_TRUE(fetch_all(7, 2));
  EXPECT_EQ(daemon.stop().status, 0);
  EXPECT_FALSE(fs::exists(box.path("run/spoolcap/transfer.sock")));
}

TEST_F(Hosts, APoisonedFileAndAStoreThatFailsOneTimeInFiveDelayNoOthers) {
  constexpr int first = 100, count = 100, poisoned = 150;
  const support::faulty_proxy proxy(
      place.endpoint, {.refused = 20, .dropped = 0, .closed = 5, .poisoned = "/150.wav"});
  go_through(proxy);
  ASSERT_TRUE(daemon.start());
  for (int id = first; id < first + count; ++id) {
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, id, content(id)), 0);
  }
  const std::string member = "eu@n1:rc/1/2/150.wav";
  EXPECT_TRUE(support::eventually([&] { return members("up") == member; }, 60s)) << members("up");
  EXPECT_TRUE(support::eventually([&] {
    return daemon.run({"--status"}).out.find(member + "\n    HTTP 400") != std::string::npos;
  }));
  empty_cache();
  EXPECT_TRUE(fetch_all(first, poisoned - first));
  EXPECT_TRUE(fetch_all(poisoned + 1, first + count - poisoned - 1));
}

TEST_F(Hosts, ALargeFileComesAndGoes) {
  std::string large(100 << 20, '\0');
  for (size_t i = 0; i < large.size(); i += 7) large[i] = static_cast<char>(i * 2654435761U >> 13U);
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, large), 0);
  drain();
  empty_cache();
  const storage_session again = order(7);
  ASSERT_EQ(end_of(again), QX_STORAGE_READY);
  EXPECT_TRUE(
      box.read_file(fs::relative(qx_storage_get_file_path(again.get()), box.root()).string()) ==
      large);
}

TEST_F(Hosts, AFullDiskFailsADownloadAtOnce) {
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, std::string(20 << 20, 'x')), 0);
  drain();
  empty_cache();
  const rlimit small{10 << 20, RLIM_INFINITY}, none{RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(::prlimit(daemon.process().pid(), RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_LT(support::seconds_of([&] { EXPECT_EQ(end_of(order(7)), QX_STORAGE_FAILED); }), 20);
  EXPECT_EQ(files("in"), texts{});
  ASSERT_EQ(::prlimit(daemon.process().pid(), RLIMIT_FSIZE, &none, nullptr), 0);
  EXPECT_EQ(end_of(order(7)), QX_STORAGE_READY) << "with room again";
}

TEST_F(Hosts, ADaemonThatIsStoppedHoldsNoHostUp) {
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, content(7)), 0);
  drain();
  empty_cache();
  daemon.process().kill(SIGSTOP);
  std::vector<storage_session> pending;
  const double seconds = support::seconds_of([&] {
    for (int id = 100; id < 400; ++id) EXPECT_EQ(stored(QX_STORAGE_RECORDING, id, content(id)), 0);
    for (int i = 0; i < 300; ++i) pending.push_back(order(7));
    qx_transfer_stop();
  });
  EXPECT_LT(seconds, 60);
  for (const storage_session &one : pending) EXPECT_EQ(end_of(one), QX_STORAGE_FAILED);
  EXPECT_EQ(qx_transfer_start(), 0);
  daemon.process().kill(SIGCONT);
  EXPECT_TRUE(fetch_all(7, 1));
  drain();
  EXPECT_EQ(members("up"), "");
}

}  // namespace
