// File storage in local directories, and what both engines refuse.
#include <array>
#include <set>

#include "tests/unit/storage_fixture.h"

namespace {

namespace fs = std::filesystem;

class StoragePosix : public storage_test {
 protected:
  StoragePosix() : storage_test("posix") {}
};

TEST_F(StoragePosix, ACommitPutsTheFileAtItsPlace) {
  ::umask(077);  // the modes do not depend on it
  const std::string other = "/dev/shm/" + box.root().filename().string() + "/7";  // elsewhere
  const std::tuple<int, std::string, const char *, std::string, std::string> cases[] = {
      {QX_STORAGE_RECORDING, "recording", "wav", "", "base/monitor/1/2/7.wav"},
      {QX_STORAGE_VOICEMAIL, "voicemail", "123456789abcdefg", "",
       "base/voicemail/1/2/7.123456789abcdef"},
      {QX_STORAGE_FAX, "fax_center", nullptr, "", "base/fax/1/2/7."},
      {QX_STORAGE_RECORDING, "recording", "wav", "sub/..a/b..mp3", "base/monitor/sub/..a/b..mp3"},
      {QX_STORAGE_FAX, "fax_center", "pdf", box.path("else/where"), "else/where"},
      {QX_STORAGE_FAX, "fax_center", "pdf", other, other}};
  for (const auto &[type, kind, extension, name, place] : cases) {
    SCOPED_TRACE(place);
    storage_session made = written(type, extension, place);
    const std::string temporary = qx_storage_get_temp_file(made.get());
    EXPECT_EQ(qx_storage_set_posix_filename(made.get(), name.empty() ? nullptr : name.c_str()), 0);
    EXPECT_EQ(qx_storage_commit_file(made.get(), 7), 0);
    EXPECT_EQ(box.read_file(place), place);
    EXPECT_EQ(mode(box.path(place)), 0770);
    EXPECT_EQ(mode(fs::path(box.path(place)).parent_path()), 0770);
    EXPECT_FALSE(fs::exists(temporary));
    EXPECT_EQ(qx_storage_get_file_path(made.get()), box.path(place));
    EXPECT_EQ(row(kind, 7), "|posix|");
    EXPECT_EQ(row(kind, 8), "old|old|old");
    box.write_file(temporary, "of a session that drew the same name");
    EXPECT_EQ(qx_storage_commit_file(made.get(), 7), -1);
    EXPECT_EQ(box.read_file(place), place);
    made.reset();
    EXPECT_TRUE(fs::remove(temporary));
  }
  fs::remove_all(fs::path(other).parent_path());
}

TEST_F(StoragePosix, ACommitThatFailsKeepsTheFileForTheNextOne) {
  log.expect(FR_LOG_WARNING, "Failed to move file [");
  const storage_session made = written(QX_STORAGE_RECORDING, "wav", "content");
  for (const std::string obstacle : {"base/monitor/1", "base/monitor/1/2/7.wav/in the way"}) {
    box.write_file(obstacle, "x");
    expect_not_stored(made, "content");
    fs::remove_all(box.path("base/monitor/1"));
  }
  EXPECT_EQ(qx_storage_commit_file(made.get(), 7), 0);
  EXPECT_EQ(box.read_file("base/monitor/1/2/7.wav"), "content");
}

TEST_F(StoragePosix, AFileIsStoredThoughTheDatabaseDoesNotTakeIt) {
  log.expect(FR_LOG_ERROR,
             "Table extension_recording has no row 9 for the newly stored file [1/2/9.wav].");
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 9, "x"), 0);
  box.sql("RENAME TABLE extension_recording TO gone");
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "x"), 0);
  EXPECT_TRUE(log.has(" -MySQL error: Table '" + box.database() + ".extension_recording'"));
  qx_sql_pool_destroy();
  log.expect(FR_LOG_ERROR,
             "Fatal: Failed to update the database for the newly stored file [1/2/8.wav].");
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 8, "x"), 0);
  EXPECT_EQ(files("base/monitor"), (texts{"1/2/7.wav", "1/2/8.wav", "1/2/9.wav"}));
}

TEST_F(StoragePosix, ASessionThatCannotBeHadLeavesNothing) {
  log.expect(FR_LOG_WARNING, "Requested to store unknown resource type [4].");
  log.expect(FR_LOG_ERROR, "Failed to create temporary file [" + base + "/voicemail/tmp");
  EXPECT_EQ(written(4, "wav", ""), nullptr);
  for (const char *extension : {"../x", "a:b", "a\n", "\x7f"}) {
    EXPECT_EQ(written(QX_STORAGE_FAX, extension, ""), nullptr) << extension;
  }
  box.write_file("base/voicemail", "in the way");
  EXPECT_EQ(written(QX_STORAGE_VOICEMAIL, "wav", ""), nullptr);
  EXPECT_EQ(files("base"), texts{"voicemail"});
}

TEST_F(StoragePosix, AfterFiveNamesThatAreTakenThereIsNoTemporaryFile) {
  log.expect(FR_LOG_ERROR, ".wav]: File exists.");
  std::array<storage_session, 5> taken;
  std::srand(7);  // names are drawn with rand
  for (storage_session &session : taken) session = written(QX_STORAGE_FAX, "wav", "");
  std::srand(7);
  EXPECT_EQ(written(QX_STORAGE_FAX, "wav", ""), nullptr);
  taken.back().reset();
  std::srand(7);
  EXPECT_NE(written(QX_STORAGE_FAX, "wav", ""), nullptr);
}

TEST_F(StoragePosix, EachProcessDrawsNamesOfItsOwn) {
  std::set<std::string> names;
  for (const bool initializes : {false, false, true, true}) {
    support::run_forked([&] {
      if (initializes) qx_storage_initialize(base.c_str(), nullptr);
      box.write_file("name", qx_storage_get_temp_file(written(QX_STORAGE_FAX, "", "").get()));
      return true;
    });
    names.insert(box.read_file("name").value());
  }
  EXPECT_EQ(names.size(), 4U);
}

TEST_F(StoragePosix, NoNameLeavesItsFolder) {
  service.emplace(box);
  log.expect(FR_LOG_WARNING, "Could not remove file [");
  box.write_file("base/victim", "x");
  box.write_file("usr/local/quorvex/scache/victim", "x");
  for (const char *name : {"../victim", "a/../../victim", "..", "a/.."}) {
    const storage_session made = written(QX_STORAGE_RECORDING, "wav", "content");
    EXPECT_EQ(qx_storage_set_posix_filename(made.get(), "first"), 0);
    EXPECT_EQ(qx_storage_set_posix_filename(made.get(), name), -1) << name;
    EXPECT_EQ(qx_storage_commit_file(made.get(), 7), 0);
    for (const char *engine : {"posix", "s3"}) {
      EXPECT_EQ(fetched(QX_STORAGE_RECORDING, name, engine), nullptr) << engine << name;
      errno = 0;
      EXPECT_EQ(qx_storage_delete(QX_STORAGE_RECORDING, name, engine, "eu"), -1) << engine << name;
      EXPECT_EQ(errno, EINVAL);
    }
  }
  EXPECT_EQ(files("base"), (texts{"monitor/first", "victim"}));
  EXPECT_EQ(files("usr/local/quorvex/scache"), texts{"victim"});
  EXPECT_EQ(members("del"), "");
}

TEST_F(StoragePosix, AStoredFileIsFetchedAndDeleted) {
  box.write_file("base/fax/7.pdf", "x");
  for (const char *engine : {"posix", "PoSiX", static_cast<const char *>(nullptr)}) {
    const storage_session found = fetched(QX_STORAGE_FAX, "7.pdf", engine);
    EXPECT_EQ(qx_storage_wait_for_file(found.get()), QX_STORAGE_READY);
    EXPECT_EQ(qx_storage_get_file_path(found.get()), base + "/fax/7.pdf");
  }
  EXPECT_EQ(qx_storage_delete(QX_STORAGE_FAX, "7.pdf", nullptr, nullptr), 0);
  log.expect(FR_LOG_WARNING, "Could not remove file [");
  const std::tuple<int, const char *, std::string, int> cases[] = {
      {QX_STORAGE_FAX, nullptr, "Cannot retrieve requested file from storage [" + base, ENOENT},
      {9, "posix", "Requested to retrieve unknown resource type [9].", EINVAL},
      {QX_STORAGE_FAX, "s3x", "Invalid storage engine specified [s3x]. Cannot retrieve", EINVAL}};
  for (const auto &[type, engine, problem, error] : cases) {
    log.expect(FR_LOG_WARNING, problem);
    EXPECT_EQ(fetched(type, "7.pdf", engine), nullptr);
    EXPECT_EQ(qx_storage_delete(type, "7.pdf", engine, nullptr), -1);
    EXPECT_EQ(errno, error) << problem;
  }
}

TEST_F(StoragePosix, ASessionKeepsTheConfigurationItWasMadeWith) {
  const storage_session old = written(QX_STORAGE_RECORDING, "wav", "old");
  for (const std::string &refused : {std::string(), std::string(4096, 'x')}) {
    EXPECT_EQ(qx_storage_load_config(refused.c_str(), nullptr), -1);
  }
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 8, "same"), 0);
  EXPECT_EQ(qx_storage_load_config(base.c_str(), box.path("calls").c_str()), 0);
  EXPECT_EQ(stored(QX_STORAGE_RECORDING, 7, "new"), 0);
  EXPECT_EQ(qx_storage_commit_file(old.get(), 7), 0);
  EXPECT_EQ(box.read_file("base/monitor/1/2/7.wav"), "old");
  EXPECT_EQ(files("base/monitor"), (texts{"1/2/7.wav", "1/2/8.wav"}));
  EXPECT_EQ(files("calls"), texts{"1/2/7.wav"});
}

}  // namespace
