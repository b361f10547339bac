// The engine's state on disk: settings, paths, records, directories, dirty marks.
#include "quota/store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "sqlsession.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;

// The texts, "-" for none, each with a blank behind it; they are freed.
std::string joined(char **texts, size_t count) {
  std::string all;
  for (size_t i = 0; i < count; ++i) {
    const c_string owned(texts[i]);
    all += std::string(owned ? owned.get() : "-") + " ";
  }
  return all;
}

unique_fd opened(const std::string &path, int flags = O_RDWR) {
  return unique_fd(::open(path.c_str(), flags | O_CLOEXEC));
}

class Store : public testing::Test {
 protected:
  std::string path(const std::string &name) const { return box.path(name); }

  support::log_capture log;
  support::sandbox box;
};

TEST_F(Store, SettingsComeOnceFromThePlatformsFiles) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D \"/srv/quota files\"\n");
  box.write_file("etc/asterisk/asterisk.conf",
                 "[files]\nastspooldir => /wrong\n"
                 "[directories]\nastspooldir => /srv/spool\n");
  EXPECT_EQ(get_conf(), 0);
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D /srv/other\n");
  EXPECT_EQ(get_conf(), 0);
  EXPECT_STREQ(loaded_settings()->quota_root.get(), "/srv/quota files");
  EXPECT_STREQ(loaded_settings()->ast_spool_dir.get(), "/srv/spool");
  EXPECT_EQ(loaded_settings()->ast_var_lib_dir.get(), path("var/lib/asterisk")) << "a default";
}

TEST_F(Store, SettingsThatAreSilentHaveDefaults) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D\n");
  fs::remove(path("etc/asterisk/asterisk.conf"));
  EXPECT_EQ(loaded_settings()->quota_root.get(), path("var/lib/quorvexquota"));
  EXPECT_EQ(loaded_settings()->ast_spool_dir.get(), path("var/spool/asterisk"));
}

TEST_F(Store, QuotaPathsFollowTheAncestry) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D /q\n");
  const struct {
    unsigned kind;
    int reseller, client, owner, result;
    const char *paths;
  } rows[] = {{0, 12, 34, 56, 0, "/q/12/fax.quota /q/12/34/fax.quota /q/12/34/56/fax.quota "},
              {1, 12, 34, 0, 0, "/q/12/sound.quota /q/12/34/sound.quota - "},
              {4, 12345, 0, 56, 0, "/q/12345/music.quota - - "},
              {5, 12, 34, 56, 0, "/q/12 /q/12/34 /q/12/34/56 "},
              {6, 12, 34, 56, -1, "- - - "},
              {0, 0, 34, 56, -1, "- - - "}};
  for (const auto &row : rows) {
    char *paths[3] = {};
    EXPECT_EQ(
        make_qpaths(row.kind, row.reseller, row.client, row.owner, paths, paths + 1, paths + 2),
        row.result);
    EXPECT_EQ(joined(paths, 3), row.paths);
  }
}

TEST_F(Store, MediaPathsFollowKindAndLevel) {
  box.write_file("etc/asterisk/asterisk.conf",
                 "[directories]\nastspooldir => /spool\nastvarlibdir => /lib\n");
  box.add_owner(3, 2, "owner");
  box.add_extension(1, 3, "101");
  box.add_extension(2, 3, "102");
  qx_sql_pool_init();
  const struct {
    unsigned kind;
    int level;
    const char *client, *owner;  // of reseller 0001
    int result;
    const char *paths;
  } rows[] = {{1, 10, nullptr, nullptr, 0, "/lib/sounds/.0001 "},
              {1, 50, "2", nullptr, 0, "/lib/sounds/.2 "},
              {4, 100, "2", "3", 0, "/lib/music/3 "},
              {0, 100, "2", "3", 0, "/spool/fax/0002*101 /spool/fax/0002*102 "},
              {2, 100, "2", "3", 0, "/spool/monitor/0002*101 /spool/monitor/0002*102 "},
              {3, 100, "2", "3", 0, "/spool/voicemail/2/101 /spool/voicemail/2/102 "},
              {3, 100, "2", "99", 0, ""},
              {0, 50, "2", "3", -1, ""},
              {1, 50, "", "3", -1, ""},
              {1, 20, "2", "3", -1, ""},
              {5, 100, "2", "3", -1, ""}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << "kind " << row.kind << " level " << row.level);
    char **paths = nullptr;
    size_t count = 0;
    EXPECT_EQ(make_dpath(row.kind, row.level, "0001", row.client, row.owner, &paths, &count),
              row.result);
    EXPECT_EQ(joined(paths, count), row.paths);
    std::free(static_cast<void *>(paths));
  }
}

TEST_F(Store, AppendedIdsLoseTheirPadding) {
  const struct {
    const char *path, *id;
    int number, keep_zeros;
    const char *result;
  } rows[] = {{"/q", "0042", 0, 0, "/q/42"},   {"/q/", "400", 0, 0, "/q/400"},
              {"/q", "0042", 0, 1, "/q/0042"}, {"/q", "0000", 0, 0, "/q/"},
              {"/q", "0042", -7, 0, "/q/-7"},  {"/q", nullptr, 0, 0, nullptr}};
  for (const auto &row : rows) {
    char *path = ::strdup(row.path);
    EXPECT_STREQ(quota_str_append(&path, row.number, row.id, row.keep_zeros), row.result);
    std::free(path);
  }
}

TEST_F(Store, RecordsAreReadByTheirFirstDot) {
  const struct {
    std::string content;
    int64_t value;
    int result, revision;
  } rows[] = {
      {"1234.7", 1234, 0, 7},
      {"-500.-3\n", -500, 0, -3},
      {"12.3.4", 12, 0, 3},
      {".5", 0, 0, 5},
      {"abc.", 0, 0, 0},
      {"9223372036854775807.2147483647", INT64_MAX, 0, INT_MAX},
      {std::string(30, '1') + ".5", INT64_MAX, 0, 0},  // the 31st byte is the last that counts
      {std::string(31, '1') + ".5", -77, -1, -78},
      {"1234", -77, -1, -78},
      {"", -77, -1, -78},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.content);
    box.write_file("record", row.content);
    const unique_fd file = opened(path("record"));
    int64_t value = -77;
    int revision = -78;
    EXPECT_EQ(quota_read_internal(file.get(), &value, &revision), row.result);
    EXPECT_EQ(value, row.value);
    EXPECT_EQ(revision, row.revision);
    EXPECT_EQ(quota_read_internal(file.get(), nullptr, &revision), -1);
  }
}

TEST_F(Store, ARecordReplacesWhateverWasThereOrFails) {
  const struct {
    int64_t value;
    int revision, result;
    const char *content;
  } rows[] = {{0, 1, 0, "0.1"},
              {-5, 0, 0, "-5.0"},
              {INT64_MAX, INT_MAX, 0, "9223372036854775807.2147483647"},
              {INT64_MIN, INT_MIN, -1, ""}};  // 32 characters
  for (const std::string &old : {std::string(), std::string("12.7"), std::string(5000, 'x')}) {
    for (const auto &row : rows) {
      SCOPED_TRACE(testing::Message() << row.value << " over " << old.substr(0, 20));
      box.write_file("record", old);
      EXPECT_EQ(quota_write_internal(opened(path("record"), O_RDONLY).get(), row.value, 0), -1);
      EXPECT_EQ(box.read_file("record"), old);
      EXPECT_EQ(quota_write_internal(opened(path("record")).get(), row.value, row.revision),
                row.result);
      EXPECT_EQ(box.read_file("record"), row.content);
    }
  }
}

TEST_F(Store, AReaderWithoutTheLockAlwaysFindsARecord) {
  box.write_file("record", "5.0");
  std::atomic<bool> done{false};
  std::jthread writer([&] {
    const unique_fd file = opened(path("record"));
    const int64_t values[] = {5, 1234567890123, 42, 99999};
    for (int i = 0; i < 40000; ++i) quota_write_internal(file.get(), values[i % 4], 0);
    done = true;
  });
  int reads = 0, missed = 0;
  for (int64_t value = 0; !done; ++reads) {
    if (quota_read_internal(opened(path("record"), O_RDONLY).get(), &value, nullptr) != 0) ++missed;
  }
  EXPECT_GT(reads, 100);
  EXPECT_EQ(missed, 0);
}

TEST_F(Store, MissingDirectoriesAreMadeUpToTheFirstObstacle) {
  const umask_guard mask(007);
  box.write_file("file", "");
  const struct {
    std::string path;
    int error;
    const char *there;
  } rows[] = {{"a/b/c", 0, "a/b/c"},        {"a/b/d/", 0, "a/b/d"},
              {"e//f", 0, "e/f"},           {"file", ENOTDIR, nullptr},
              {"file/g", ENOTDIR, nullptr}, {"h/" + std::string(300, 'h'), ENAMETOOLONG, "h"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.path);
    for (int again = 0; again < 2; ++again) {
      EXPECT_EQ(make_dirs(path(row.path).c_str(), 0770, ::getuid(), ::getgid()),
                row.error == 0 ? 0 : -1);
      EXPECT_EQ(errno, row.error);
    }
    if (row.there == nullptr) continue;
    EXPECT_EQ(fs::status(path(row.there)).permissions(), fs::perms{0770});
  }
  EXPECT_EQ(make_dirs(nullptr, 0770, 0, 0), -1);
}

TEST_F(Store, SeveralMayMakeOneDirectoryAtOnce) {
  std::atomic<int> failures = 0;
  const auto make = [&] {
    for (int i = 0; i < 200; ++i) {
      const std::string folder = path(std::to_string(i)) + "/a/b/c/d/e/f";
      failures -= make_dirs(folder.c_str(), 0770, ::getuid(), ::getgid());
    }
  };
  std::vector<std::jthread> makers(4);
  for (std::jthread &maker : makers) maker = std::jthread(make);
  makers.clear();
  EXPECT_EQ(failures, 0);
}

TEST_F(Store, DirtyMarksStandBesideTheirFile) {
  const umask_guard mask(007);
  const std::string file = path("fax.quota");
  EXPECT_EQ(is_dirty(file.c_str()), 0);
  EXPECT_EQ(unset_dirty(file.c_str()), -1);
  EXPECT_EQ(set_dirty(file.c_str()), 0);
  EXPECT_EQ(is_dirty(file.c_str()), 1);
  EXPECT_EQ(set_dirty(file.c_str()), 0) << "a mark that is there";
  struct stat status {};
  ASSERT_EQ(::stat((file + ".dirty").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0660U);
  if (uid_t uid = 0; ::getuid() == 0) {
    gid_t gid = 0;
    ASSERT_EQ(get_ids("asterisk", "asterisk", &uid, &gid), 0);
    EXPECT_EQ(status.st_uid, uid);
    EXPECT_EQ(status.st_gid, gid);
  }
  EXPECT_EQ(unset_dirty(file.c_str()), 0);
  EXPECT_EQ(is_dirty(file.c_str()), 0);
  EXPECT_EQ(set_dirty(path("missing/fax.quota").c_str()), -1);
}

}  // namespace
