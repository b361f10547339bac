// File storage from many threads at once.
#include <thread>

#include "tests/unit/storage_fixture.h"

namespace {

namespace fs = std::filesystem;

class StorageThreads : public storage_test {
 protected:
  StorageThreads() : storage_test("s3") { service.emplace(box); }

  static auto descriptors() {
    qx_sql_pool_destroy();
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }
};

TEST_F(StorageThreads, AReaderSeesWholeFilesOnly) {
  constexpr int threads = 16, rounds = 12, size = 1 << 20;
  box.sql("INSERT INTO extension_recording (id, extension_id) SELECT seq, 1 FROM seq_100_to_2000");
  for (int i = 0; i < rounds; ++i) box.write_file(service->object("in/" + std::to_string(i)), i);
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, std::string(size, 'a')), 0);  // connects to the DisDB
  const auto before = descriptors();
  qx_sql_pool_init();
  std::atomic<int> running = threads;
  const auto work = [&](int me) {
    for (int round = 0; round < rounds; ++round) {
      if (round % 4 == me % 4) {
        EXPECT_EQ(qx_storage_load_config(base.c_str(), nullptr), 0);
      }
      storage_session found = fetched(QX_STORAGE_RECORDING, "in/" + std::to_string(round), "s3");
      qx_storage_ref_session(found.get());
      std::thread waiter([round, own = storage_session(found.get())] {
        EXPECT_EQ(qx_storage_wait_for_file(own.get()), QX_STORAGE_READY);
        EXPECT_EQ(fs::file_size(qx_storage_get_file_path(own.get())), static_cast<size_t>(round));
      });
      found.reset();
      const int id = 100 * (me + 1) + round;
      EXPECT_EQ(stored(QX_STORAGE_RECORDING, id, std::to_string(id)), 0);
      EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, std::string(size, static_cast<char>('a' + me))), 0);
      waiter.join();
    }
    --running;
  };
  std::vector<std::thread> all;
  all.reserve(threads);
  for (int me = 0; me < threads; ++me) all.emplace_back(work, me);
  while (running > 0) {
    service->work_off();
    const std::string seen = box.read_file(scache + "rc/1/2/7.wav").value();
    EXPECT_EQ(seen.size(), static_cast<size_t>(size));
    EXPECT_EQ(seen.find_first_not_of(seen.front()), seen.npos);
  }
  for (std::thread &one : all) one.join();
  service->work_off();
  service.reset();
  EXPECT_EQ(descriptors(), before);
  constexpr size_t stored_files = threads * rounds;
  EXPECT_EQ(files(scache).size(), stored_files + 1 + rounds) << "and nothing else";
  EXPECT_EQ(files("store/rc/1/2").size(), stored_files + 1);
  for (const std::string &file : files("store/rc/1/2")) {
    const std::string id = box.read_file("store/rc/1/2/" + file).value();
    EXPECT_TRUE(id == box.read_file((fs::path(scache) / "rc/1/2" / file).string())) << file;
    EXPECT_TRUE(file == "7.wav" || file == id + ".wav") << file;
  }
  EXPECT_EQ(box.sql_value("SELECT COUNT(*) FROM extension_recording WHERE se = 's3' AND az = "
                          "'eu:bucket' AND filename = CONCAT('rc/1/2/', id, '.wav')"),
            std::to_string(stored_files + 1));
}

}  // namespace
