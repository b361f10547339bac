// Hosts, the daemon and a real store together.
#include <spoolcap/transfer.h>
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
      sessions[static_cast<size_t>(i)].reset(qx_storage_session_retrieve(
          QX_STORAGE_RECORDING, ("rc/1/2/" + std::to_string(first + i) + ".wav").c_str(), "s3",
          "eu@n1"));
    }
    bool are_good = true;
    for (int i = 0; i < count; ++i) {
      qx_storage_session_t *one = sessions[static_cast<size_t>(i)].get();
      are_good = qx_storage_wait_for_file(one) == QX_STORAGE_READY && are_good &&
                 box.read_file(qx_storage_get_file_path(one)) == content(first + i);
    }
    return are_good;
  }

  support::transfer_daemon daemon{box, support::new_bucket(support::shared_object_store())};
};

TEST_F(Hosts, AThousandFilesOfFourHostsComeAndGoAtOnce) {
  constexpr int hosts = 4, files_of_each = 250;
  const auto in_each_host = [](const std::function<bool(int first)> &work) {
    std::vector<std::unique_ptr<support::background_process>> all(hosts);
    for (int i = 0; i < hosts; ++i) {
      all[static_cast<size_t>(i)] = std::make_unique<support::background_process>(
          [=] { return work(100 + i * files_of_each); });
    }
    for (const auto &one : all) EXPECT_EQ(one->wait(90s)->status, 0);
  };
  box.sql("INSERT INTO extension_recording (id, extension_id) SELECT seq, 1 FROM seq_100_to_1099");
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

}  // namespace
