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
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sqlsession.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using text = std::optional<std::string>;

text taken(char *string) {
  const c_string owned(string);
  return owned ? text(owned.get()) : std::nullopt;
}

support::sandbox_options without_servers() {
  support::sandbox_options options;
  options.use_database = false;
  options.use_cache = false;
  return options;
}

class Store : public testing::Test {
 protected:
  explicit Store(const support::sandbox_options &options = without_servers()) : box(options) {}

  std::string path(const std::string &name) const { return box.path(name); }
  static mode_t mode_of(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
  }

  support::log_capture log;
  support::sandbox box;
};

TEST_F(Store, SettingsComeFromThePlatformsFiles) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D \"/srv/quota files\"\n");
  box.write_file("etc/asterisk/asterisk.conf",
                 "[files]\nastspooldir => /wrong\n"
                 "[directories]\nastspooldir => /srv/spool\nastvarlibdir = /srv/lib\n");
  ASSERT_NE(loaded_settings(), nullptr);
  EXPECT_STREQ(loaded_settings()->quota_root.get(), "/srv/quota files");
  EXPECT_STREQ(loaded_settings()->ast_spool_dir.get(), "/srv/spool");
  EXPECT_STREQ(loaded_settings()->ast_var_lib_dir.get(), "/srv/lib");
  // They are read once.
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D /srv/other\n");
  EXPECT_EQ(get_conf(), 0);
  EXPECT_STREQ(loaded_settings()->quota_root.get(), "/srv/quota files");
}

TEST_F(Store, SettingsThatAreSilentHaveDefaults) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D\n");
  fs::remove(path("etc/asterisk/asterisk.conf"));
  ASSERT_NE(loaded_settings(), nullptr);
  EXPECT_EQ(loaded_settings()->quota_root.get(), path("var/lib/quorvexquota"));
  EXPECT_EQ(loaded_settings()->ast_spool_dir.get(), path("var/spool/asterisk"));
  EXPECT_EQ(loaded_settings()->ast_var_lib_dir.get(), path("var/lib/asterisk"));
}

TEST_F(Store, QuotaPathsFollowTheAncestry) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D /q\n");
  const struct {
    unsigned kind;
    int reseller, client, owner, result;
    text reseller_path, client_path, owner_path;
  } rows[] = {
      {0, 12, 34, 56, 0, "/q/12/fax.quota", "/q/12/34/fax.quota", "/q/12/34/56/fax.quota"},
      {1, 12, 34, 0, 0, "/q/12/sound.quota", "/q/12/34/sound.quota", {}},
      {2, 12, 0, 56, 0, "/q/12/recording.quota", {}, {}},
      {3, 12345, 0, 0, 0, "/q/12345/voicemail.quota", {}, {}},
      {4, 1, 2, 3, 0, "/q/1/music.quota", "/q/1/2/music.quota", "/q/1/2/3/music.quota"},
      {5, 12, 34, 56, 0, "/q/12", "/q/12/34", "/q/12/34/56"},
      {6, 12, 34, 56, -1, {}, {}, {}},
      {0, 0, 34, 56, -1, {}, {}, {}},
      {0, -1, 34, 56, -1, {}, {}, {}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message()
                 << row.kind << " for " << row.reseller << "/" << row.client << "/" << row.owner);
    char *reseller = nullptr;
    char *client = nullptr;
    char *owner = nullptr;
    EXPECT_EQ(
        make_qpaths(row.kind, row.reseller, row.client, row.owner, &reseller, &client, &owner),
        row.result);
    EXPECT_EQ(taken(reseller), row.reseller_path);
    EXPECT_EQ(taken(client), row.client_path);
    EXPECT_EQ(taken(owner), row.owner_path);
  }
  EXPECT_EQ(make_qpaths(0, 1, 2, 3, nullptr, nullptr, nullptr), 0) << "nothing asked for";
}

class MediaPaths : public Store {
 protected:
  MediaPaths() : Store(support::sandbox_options{}) {}
};

TEST_F(MediaPaths, FollowKindAndLevel) {
  box.write_file("etc/asterisk/asterisk.conf",
                 "[directories]\nastspooldir => /spool\nastvarlibdir => /lib\n");
  box.add_owner(3, 2, "owner");
  box.add_extension(1, 3, "101");
  box.add_extension(2, 3, "102");
  qx_sql_pool_init();
  const std::string full = *box.sql_value("SELECT extended_number FROM extension WHERE id=1");
  const std::string other = *box.sql_value("SELECT extended_number FROM extension WHERE id=2");
  using list = std::vector<std::string>;
  const struct {
    unsigned kind;
    int level;
    const char *reseller, *client, *owner;
    int result;
    list paths;
  } rows[] = {
      {1, 10, "0001", nullptr, nullptr, 0, {"/lib/sounds/.0001"}},
      {1, 50, "1", "2", nullptr, 0, {"/lib/sounds/.2"}},
      {1, 100, "1", "2", "3", 0, {"/lib/sounds/.3"}},
      {4, 10, "0001", nullptr, nullptr, 0, {"/lib/music/0001"}},
      {4, 100, nullptr, nullptr, "3", 0, {"/lib/music/3"}},
      {0, 100, "1", "2", "3", 0, {"/spool/fax/" + full, "/spool/fax/" + other}},
      {2, 100, "1", "2", "3", 0, {"/spool/monitor/" + full, "/spool/monitor/" + other}},
      {3, 100, "1", "2", "3", 0, {"/spool/voicemail/2/101", "/spool/voicemail/2/102"}},
      {3, 100, "1", "2", "99", 0, {}},
      {0, 50, "1", "2", "3", -1, {}},
      {2, 10, "1", "2", "3", -1, {}},
      {3, 50, "1", "2", "3", -1, {}},
      {1, 50, "1", "", "3", -1, {}},
      {1, 100, "1", "2", nullptr, -1, {}},
      {1, 0, "1", "2", "3", -1, {}},
      {1, 20, "1", "2", "3", -1, {}},
      {5, 100, "1", "2", "3", -1, {}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << "kind " << row.kind << " level " << row.level);
    char **paths = nullptr;
    size_t count = 0;
    EXPECT_EQ(make_dpath(row.kind, row.level, row.reseller, row.client, row.owner, &paths, &count),
              row.result);
    EXPECT_EQ(list(paths, paths + count), row.paths);
    free_dpath(paths, count);
  }
}

TEST_F(Store, AppendedIdsLoseTheirPadding) {
  const struct {
    const char *path, *id;
    int number, keep_zeros;
    text result, left;
  } rows[] = {
      {"/q", "0042", 0, 0, "/q/42", "/q/42"},     {"/q/", "0042", 0, 0, "/q/42", "/q/42"},
      {"/q", "0042", 0, 1, "/q/0042", "/q/0042"}, {"/q", "0000", 0, 0, "/q/", "/q/"},
      {"/q", "0042", 7, 0, "/q/7", "/q/7"},       {"/q", nullptr, -7, 0, "/q/-7", "/q/-7"},
      {"/q", "400", 0, 0, "/q/400", "/q/400"},    {"/q", nullptr, 0, 0, {}, "/q/"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.path << " + " << row.number);
    char *path = ::strdup(row.path);
    const char *result = quota_str_append(&path, row.number, row.id, row.keep_zeros);
    EXPECT_EQ(result == nullptr ? std::nullopt : text(result), row.result);
    EXPECT_EQ(taken(path), row.left);
  }
}

TEST_F(Store, RecordsAreReadByTheirFirstDot) {
  const struct {
    std::string content;
    int64_t value;
    int result, revision;
  } rows[] = {
      {"1234.7", 1234, 0, 7},
      {"0.0", 0, 0, 0},
      {"-500.-3", -500, 0, -3},
      {"12.3.4", 12, 0, 3},
      {"12.", 12, 0, 0},
      {".5", 0, 0, 5},
      {"abc.5", 0, 0, 5},
      {"5.1\n", 5, 0, 1},
      {"9223372036854775807.2147483647", INT64_MAX, 0, INT_MAX},
      {std::string(30, '1') + ".5", INT64_MAX, 0, 0},  // the 31st byte is the last that counts
      {std::string(31, '1') + ".5", -77, -1, -78},
      {"1234", -77, -1, -78},
      {"", -77, -1, -78},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.content);
    box.write_file("record", row.content);
    const unique_fd file(::open(path("record").c_str(), O_RDONLY | O_CLOEXEC));
    int64_t value = -77;
    int revision = -78;
    EXPECT_EQ(quota_read_internal(file.get(), &value, &revision), row.result);
    EXPECT_EQ(value, row.value);
    EXPECT_EQ(revision, row.revision);
    ::lseek(file.get(), 0, SEEK_SET);
    EXPECT_EQ(quota_read_internal(file.get(), &value, nullptr), row.result) << "no revision wanted";
    EXPECT_EQ(quota_read_internal(file.get(), nullptr, &revision), -1);
  }
  const unique_fd folder(::open(box.root().c_str(), O_RDONLY | O_CLOEXEC));
  int64_t value = 0;
  EXPECT_EQ(quota_read_internal(folder.get(), &value, nullptr), -1) << "a read error";
}

TEST_F(Store, ARecordReplacesWhateverWasThere) {
  const struct {
    int64_t value;
    int revision;
    std::string content;
  } rows[] = {{0, 1, "0.1"},
              {1234, 7, "1234.7"},
              {-5, 0, "-5.0"},
              {INT64_MAX, INT_MAX, "9223372036854775807.2147483647"}};
  const std::string before[] = {"", "0.1", "123456.7", "1", std::string(5000, 'x')};
  for (const auto &row : rows) {
    for (const std::string &old : before) {
      SCOPED_TRACE(row.content + " over " + old.substr(0, 20));
      box.write_file("record", old);
      const unique_fd file(::open(path("record").c_str(), O_RDWR | O_CLOEXEC));
      EXPECT_EQ(quota_write_internal(file.get(), row.value, row.revision), 0);
      EXPECT_EQ(box.read_file("record"), row.content);
    }
  }
}

TEST_F(Store, ARecordThatCannotBeWrittenIsAnError) {
  box.write_file("record", "12.3");
  const unique_fd read_only(::open(path("record").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(quota_write_internal(read_only.get(), 1, 0), -1);
  EXPECT_EQ(quota_write_internal(-1, 1, 0), -1);
  const unique_fd file(::open(path("record").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(quota_write_internal(file.get(), INT64_MIN, INT_MIN), -1) << "32 characters";
  EXPECT_EQ(box.read_file("record"), "12.3");
}

TEST_F(Store, AReaderWithoutTheLockAlwaysFindsARecord) {
  const std::string name = path("record");
  box.write_file("record", "5.0");
  std::atomic<bool> done{false};
  std::thread writer([&] {
    const unique_fd file(::open(name.c_str(), O_RDWR | O_CLOEXEC));
    const int64_t values[] = {5, 1234567890123, 42, 99999};
    for (int i = 0; i < 40000; ++i) quota_write_internal(file.get(), values[i % 4], 0);
    done = true;
  });
  int missed = 0;
  int reads = 0;
  for (; !done; ++reads) {
    const unique_fd file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    int64_t value = 0;
    if (quota_read_internal(file.get(), &value, nullptr) != 0) ++missed;
  }
  writer.join();
  EXPECT_GT(reads, 100);
  EXPECT_EQ(missed, 0);
}

TEST_F(Store, MissingDirectoriesAreMadeUpToTheFirstObstacle) {
  const umask_guard mask(007);
  box.write_file("file", "");
  const struct {
    std::string path;
    int result, error;
    std::string there;
  } rows[] = {
      {path("a/b/c"), 0, 0, "a/b/c"},
      {path("a/b/c"), 0, 0, "a/b/c"},
      {path("a/b/d/"), 0, 0, "a/b/d"},
      {path("e//f"), 0, 0, "e/f"},
      {path("file"), -1, ENOTDIR, ""},
      {path("file/g"), -1, ENOTDIR, ""},
      {path("h/") + std::string(300, 'h'), -1, ENAMETOOLONG, "h"},
      {"/", 0, 0, ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(make_dirs(row.path.c_str(), 0770, ::getuid(), ::getgid()), row.result);
    EXPECT_EQ(errno, row.error);
    if (row.there.empty()) continue;
    EXPECT_EQ(mode_of(path(row.there)), 0770U);
  }
  EXPECT_EQ(make_dirs(nullptr, 0770, 0, 0), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Store, SeveralProcessesMakeOneDirectory) {
  for (int round = 0; round < 50; ++round) {
    const std::string folder = path(std::to_string(round)) + "/a/b/c";
    std::atomic<int> failures{0};
    std::vector<std::thread> makers;
    makers.reserve(4);
    for (int i = 0; i < 4; ++i) {
      makers.emplace_back([&] {
        if (make_dirs(folder.c_str(), 0770, ::getuid(), ::getgid()) != 0) ++failures;
      });
    }
    for (std::thread &maker : makers) maker.join();
    ASSERT_EQ(failures, 0) << "round " << round;
  }
}

TEST_F(Store, DirtyMarksStandBesideTheirFile) {
  const umask_guard mask(007);
  const std::string file = path("fax.quota");
  EXPECT_EQ(is_dirty(file.c_str()), 0);
  EXPECT_EQ(unset_dirty(file.c_str()), -1);
  EXPECT_EQ(set_dirty(file.c_str()), 0);
  EXPECT_EQ(is_dirty(file.c_str()), 1);
  EXPECT_EQ(box.read_file("fax.quota.dirty"), "");
  EXPECT_EQ(mode_of(file + ".dirty"), 0660U);
  EXPECT_EQ(set_dirty(file.c_str()), 0) << "a mark that is there";
  EXPECT_EQ(unset_dirty(file.c_str()), 0);
  EXPECT_EQ(is_dirty(file.c_str()), 0);
  EXPECT_EQ(set_dirty(path("missing/fax.quota").c_str()), -1);
}

TEST_F(Store, WhatRootCreatesBelongsToAsterisk) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root";
  uid_t uid = 0;
  gid_t gid = 0;
  ASSERT_EQ(get_ids("asterisk", "asterisk", &uid, &gid), 0);
  ASSERT_EQ(make_dirs(path("a/b").c_str(), 0770, uid, gid), 0);
  ASSERT_EQ(set_dirty(path("a/b/fax.quota").c_str()), 0);
  bool created = false;
  ASSERT_TRUE(open_quota_file(path("a/b/fax.quota").c_str(), &created));
  for (const char *name : {"a", "a/b", "a/b/fax.quota", "a/b/fax.quota.dirty"}) {
    SCOPED_TRACE(name);
    struct stat status {};
    ASSERT_EQ(::stat(path(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, uid);
    EXPECT_EQ(status.st_gid, gid);
  }
}

}  // namespace
