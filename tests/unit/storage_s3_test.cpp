// File storage in an object store: cache, queues, downloads and their troubles.
#include <fcntl.h>
#include <sys/resource.h>

#include <csignal>
#include <thread>

#include <spoolcap/zarn_str.h>
#include "main/storage/config.h"
#include "main/storage/engine.h"
#include "main/storage/files.h"
#include "tests/unit/storage_fixture.h"

namespace {

namespace fs = std::filesystem;
using outcome = support::transfer_service::outcome;
using moment = support::transfer_service::moment;

const std::string key = "rc/1/2/7.wav";

class StorageS3 : public storage_test {
 protected:
  StorageS3() : storage_test("s3") { service.emplace(box); }
};

TEST_F(StorageS3, ACommitQueuesTheUploadOfACompleteCopy) {
  const std::string place = service->location.emplace("o'hara:b\\ucket") + ":";
  const std::tuple<int, const char *, const char *> cases[] = {
      {QX_STORAGE_RECORDING, "recording", "rc"},
      {QX_STORAGE_VOICEMAIL, "voicemail", "vm"},
      {QX_STORAGE_FAX, "fax_center", "fx"},
      {9, "", "misc"}};
  for (const auto &[type, kind, word] : cases) {
    const std::string name = std::string(word) + "/1/2/7.wav", path = box.path(scache + name);
    const storage_session made = written(type, "wav", name);
    EXPECT_EQ(service->last_asked(), std::to_string(type) + " 1 2 - -");
    EXPECT_EQ(files("usr/local/quorvex/stmp/out/main").size(), 1U);
    EXPECT_EQ(qx_storage_commit_file(made.get(), 7), 0);
    EXPECT_EQ(members("up"), place + name);
    const auto score = box.redis({"ZSCORE", "storage:upqueue:s3:main", place + name});
    EXPECT_NEAR(std::stod(score.value()), qx_get_tstamp(), 10);
    EXPECT_EQ(qx_storage_get_file_path(made.get()), path);
    EXPECT_EQ(mode(path), 0770);
    EXPECT_EQ(service->work_off(), 1);
    EXPECT_EQ(box.read_file(service->object(name)), name);
    if (type != 9) {
      EXPECT_EQ(row(kind, 7), name + "|s3|o'hara:b\\ucket");
      EXPECT_EQ(row(kind, 8), "old|old|old");
    }
    EXPECT_EQ(qx_storage_delete(type, name.c_str(), "s3", "eu"), 0);
    EXPECT_EQ(members("del"), "eu:o:" + name);
    EXPECT_EQ(service->work_off(), 1);
    EXPECT_EQ(service->told.exchange(0), 2);
    EXPECT_EQ(files(scache), texts{});
  }
  EXPECT_EQ(qx_storage_delete(1, nullptr, "s3", "eu"), 0);
  EXPECT_EQ(qx_storage_delete(1, key.c_str(), "s3", nullptr), 0);
  for (const char *name : {"", "/a", "a/", "a:b", "a\nb", "\x7f"}) {
    EXPECT_EQ(fetched(1, name, "s3"), nullptr) << name;
    EXPECT_EQ(qx_storage_delete(1, name, "s3", "eu"), -1) << name;
    EXPECT_EQ(std::exchange(errno, 0), EINVAL);
  }
  EXPECT_EQ(members("del"), "");
}

TEST_F(StorageS3, ADeletionTakesWhatWasQueuedBeforeItAndNotifiesTheServiceAfterwards) {
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "old"), 0);
  const auto remove = [] {
    return qx_storage_delete(QX_STORAGE_RECORDING, key.c_str(), "s3", "eu");
  };
  {
    const unique_fd file(::open(box.path(scache + key).c_str(), O_RDONLY | O_CLOEXEC));
    const committed_file to_be_queued(file.get());
    EXPECT_EQ(remove(), 0);
    EXPECT_EQ(files(scache), texts{key});
  }
  service->when_told = [this] { EXPECT_EQ(files(scache), texts{}); };
  EXPECT_EQ(remove(), 0);
  EXPECT_EQ(service->told, 3);
  service->when_told = [] {};

  const auto score = [this](const std::string &queue, const std::string &member) {
    return std::stod(box.redis({"ZSCORE", "storage:" + queue + "queue:s3:main", member}).value());
  };
  for (int round = 0; round < 200; ++round) {
    std::thread deleting(remove);
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "new"), 0);
    deleting.join();
    if (score("up", "eu:bucket:" + key) > score("del", "eu:o:" + key)) {
      ASSERT_EQ(files(scache), texts{key}) << "queued after its deletion, in round " << round;
    }
  }
}

TEST_F(StorageS3, WithoutTheDisDBNothingIsStoredOrDeleted) {
  log.expect(FR_LOG_WARNING, "Failed to queue file [" + key + "].");
  const storage_session made = written(QX_STORAGE_RECORDING, "wav", "content");
  const std::string servers = box.read_file("etc/quorvex/disdbase.conf").value();
  box.write_file("etc/quorvex/disdbase.conf", "DISDBASE_HOST main:a:b:/nowhere:1\n");
  EXPECT_EQ(qx_storage_initialize(base.c_str(), nullptr), 0);
  expect_not_stored(made, "content");
  EXPECT_TRUE(log.has("cache_zaddval(storage:upqueue:s3:main, eu:bucket:" + key + "): error "));
  EXPECT_EQ(qx_storage_delete(1, key.c_str(), "s3", "eu"), -1);
  EXPECT_EQ(std::exchange(errno, 0), EIO);
  EXPECT_EQ(box.read_file(scache + key), "content");
  EXPECT_EQ(qx_storage_delete_extension(2, "", 1, "", nullptr), -1);
  EXPECT_EQ(errno, EIO);
  box.write_file("etc/quorvex/disdbase.conf", servers);
  EXPECT_EQ(qx_storage_initialize(base.c_str(), nullptr), 0);
  EXPECT_EQ(qx_storage_commit_file(made.get(), 7), 0);
  EXPECT_EQ(members("up"), "eu:bucket:" + key);
}

TEST_F(StorageS3, AFullDiskKeepsTheFileForTheNextCommit) {
  log.expect(FR_LOG_WARNING, "Failed to copy file [");
  const storage_session made = written(QX_STORAGE_RECORDING, "wav", std::string(300'000, 'x'));
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{100'000, RLIM_INFINITY}, none{RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  expect_not_stored(made, std::string(300'000, 'x'));
  EXPECT_EQ(files(scache), texts{});
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  EXPECT_EQ(qx_storage_commit_file(made.get(), 7), 0);
  EXPECT_EQ(box.read_file(scache + key), std::string(300'000, 'x'));
}

TEST_F(StorageS3, WhileItIsNotUsableFilesAreStoredLocally) {
  log.expect(FR_LOG_WARNING,
             "S3 engine is disabled due to a configuration error. Storing file to POSIX");
  log.expect(FR_LOG_WARNING,
             "The S3 storage engine is disabled due to a configuration error. Cannot retrieve file "
             "from S3.");
  service->usable = false;
  for (const int id : {7, 8}) {
    EXPECT_EQ(stored(QX_STORAGE_FAX, id, "x"), 0);
    EXPECT_EQ(row("fax_center", id), id == 7 ? "|posix|eu:bucket" : "|posix|");
    EXPECT_EQ(fetched(QX_STORAGE_RECORDING, key, "s3"), nullptr);
    service.reset();  // and without any service
  }
}

TEST_F(StorageS3, ADownloadWakesAllThreadsThatWait) {
  const std::string content(200'000, 'x');
  box.write_file(service->object(key), content);
  for (const moment when : {moment::later, moment::at_once, moment::held}) {
    for (const outcome how :
         {outcome::failed, outcome::cut_off, outcome::refused, outcome::whole}) {
      SCOPED_TRACE(testing::Message()
                   << "moment " << static_cast<int>(when) << ", outcome " << static_cast<int>(how));
      service.emplace(box);
      service->result = how;
      service->when = when;
      service->slowness = 20;
      const storage_session found = fetched(QX_STORAGE_RECORDING, key, "S3");
      EXPECT_EQ(service->last_asked(), key + " main s3 how to");
      const int expected = how == outcome::whole ? QX_STORAGE_READY : QX_STORAGE_FAILED;
      const auto wait = [&] { EXPECT_EQ(qx_storage_wait_for_file(found.get()), expected); };
      std::thread first(wait), second(wait);
      service->let_go();
      first.join();
      second.join();
      EXPECT_EQ(files("usr/local/quorvex/stmp"), texts{});
      const char *path = qx_storage_get_file_path(found.get());
      EXPECT_EQ(path != nullptr, how == outcome::whole);
      EXPECT_EQ(files(scache), how == outcome::whole ? texts{key} : texts{});
      if (path == nullptr) continue;
      EXPECT_EQ(box.read_file(path), content);
      service->result = outcome::refused;  // which does not matter to a file in the cache
      const auto long_ago = fs::last_write_time(path) - std::chrono::hours(1);
      fs::last_write_time(path, long_ago);
      const storage_session again = fetched(QX_STORAGE_RECORDING, key, "s3");
      EXPECT_EQ(qx_storage_get_session_status(again.get()), QX_STORAGE_READY);
      EXPECT_GT(fs::last_write_time(path), long_ago) << "its use is to be seen";
      fs::remove(path);
    }
  }
}

TEST_F(StorageS3, ALateDownloadDoesNotReplaceANewerFile) {
  const std::string other = "/dev/shm/" + box.root().filename().string();  // another file system
  for (const std::string &cache : {box.path("usr/local/quorvex/scache"), other}) {
    box.write_file("etc/quorvex/storage.conf",
                   "STORAGE_SYSTEM s3\nSTORAGE_CACHE_D " + cache + "\n");
    EXPECT_EQ(qx_storage_load_config(base.c_str(), nullptr), 0);
    service.emplace(box);
    service->when = moment::held;
    box.write_file(service->object(key), "OLD");
    const storage_session found = fetched(QX_STORAGE_RECORDING, key, "s3");
    EXPECT_EQ(files("usr/local/quorvex/stmp/in").size(), 1U);
    EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "NEW"), 0);
    service->let_go();
    EXPECT_EQ(qx_storage_wait_for_file(found.get()), QX_STORAGE_READY);
    EXPECT_EQ(box.read_file(qx_storage_get_file_path(found.get())), "NEW");
    EXPECT_EQ(files(cache), texts{"main/" + key});
  }
  fs::remove_all(other);
}

TEST_F(StorageS3, ADownloadOutlivesItsCaller) {
  for (const std::string name : {"kept", "lost"}) {
    box.write_file(service->object(name), "content");
    service->result = name == "kept" ? outcome::whole : outcome::cut_off;
    service->when = moment::held;
    const storage_session found = fetched(QX_STORAGE_RECORDING, name, "s3");
    EXPECT_EQ(qx_storage_get_session_status(found.get()), QX_STORAGE_PENDING);
  }
  service.reset();
  EXPECT_EQ(files(scache), texts{"kept"});
}

TEST_F(StorageS3, ADownloadThatTheCacheCannotTakeFails) {
  box.write_file(service->object(key), "content");
  box.write_file(scache + "rc", "in the way");
  log.expect(FR_LOG_WARNING, "Failed to move file [");
  EXPECT_EQ(qx_storage_wait_for_file(fetched(QX_STORAGE_RECORDING, key, "s3").get()),
            QX_STORAGE_FAILED);
}

TEST_F(StorageS3, AllOfAnOwnerIsQueuedForDeletionInOrder) {
  EXPECT_EQ(qx_storage_delete_extension(2, "one", 1, "two", nullptr), 0);
  EXPECT_EQ(service->last_asked(), "0 1 2 one two");
  EXPECT_EQ(members("del"), "eu:bucket:r:vm/1/2 eu:bucket:r:fx/1/2 eu:bucket:r:rc/1/2");
  EXPECT_TRUE(log.has(":Adding voicemail recursive member [eu:bucket:r:vm/1/2] to delete queue."));
  service->location = std::nullopt;
  EXPECT_EQ(qx_storage_delete_extension(2, "one", 1, "two", nullptr), -1);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(written(QX_STORAGE_FAX, "pdf", ""), nullptr) << "nor is a file kept nowhere";
}

TEST_F(StorageS3, TheConfigurationIsReadFromItsFileForNewSessions) {
  using all = std::tuple<std::string, std::string, std::string, int, int, int>;
  const auto read = [] {
    const auto c = take_snapshot().config;
    return all(c->transfer_in, c->transfer_out, c->cache, c->cache_expire, c->trash_expire,
               c->upload_interval);
  };
  const std::string top = box.path("usr/local/quorvex/");
  EXPECT_EQ(read(), all(top + "stmp/in", top + "stmp/out", top + "scache", 48, 1, 120));
  const storage_session old = written(QX_STORAGE_RECORDING, "wav", "x");
  box.write_file("etc/quorvex/storage.conf",
                 "STORAGE_SYSTEM S3\nSTORAGE_CACHE_EXPIRE 2\nSTORAGE_TRASH_EXPIRE 3\n"
                 "S3_UPL_INTERVAL 4\nSTORAGE_TRANSFERIN_D /in\nSTORAGE_TRANSFEROUT_D /out\n"
                 "STORAGE_CACHE_D /cache\n");
  EXPECT_EQ(qx_storage_load_config(base.c_str(), nullptr), 0);
  EXPECT_EQ(read(), all("/in", "/out", "/cache", 2, 3, 4));
  EXPECT_EQ(take_snapshot().config->engine, &posix_engine) << "only \"s3\" is S3";
  EXPECT_EQ(qx_storage_commit_file(old.get(), 7), 0);
  EXPECT_EQ(files(scache), texts{key}) << "a session keeps what it was made with";
}

}  // namespace
