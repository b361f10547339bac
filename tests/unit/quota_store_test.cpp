// The engine's state on disk: settings, paths, records, directories, marks.
#include <fcntl.h>

#include <cerrno>

#include "main/quota/careful_open.h"
#include "main/quota/marks.h"
#include "main/quota/record.h"
#include "main/quota/settings.h"
#include "main/quota/tree_paths.h"
#include "tests/support/platform_test.h"

namespace {

namespace fs = std::filesystem;

class Store : public platform_test {
 protected:
  std::string path(const std::string &name) const { return box.path(name); }
};

TEST_F(Store, SettingsComeOnceFromThePlatformsFilesOrHaveDefaults) {
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D\n");
  box.write_file("etc/asterisk/asterisk.conf",
                 "[files]\nastspooldir => /wrong\n[directories]\nastspooldir => /srv/spool\n");
  EXPECT_EQ(get_conf(), 0);
  box.write_file("etc/quorvex/paths.conf", "QUORVEX_QUOTA_D /srv/other\n");
  EXPECT_EQ(get_conf(), 0);
  EXPECT_EQ(loaded_settings()->quota_root, path("var/lib/quorvexquota"));
  EXPECT_EQ(loaded_settings()->ast_spool_dir, "/srv/spool");
  EXPECT_EQ(loaded_settings()->ast_var_lib_dir, path("var/lib/asterisk"));
}

TEST_F(Store, MediaPathsFollowKindAndLevel) {
  box.write_file("etc/asterisk/asterisk.conf",
                 "[directories]\nastspooldir => /spool\nastvarlibdir => /lib\n");
  box.add_owner(3, 2, "owner");
  box.add_extension(1, 3, "101");
  box.add_extension(2, 3, "102");
  const struct {
    unsigned kind;
    int level;
    const char *client, *owner;  // of reseller 0001
    int result;
    const char *paths;
  } rows[] = {{1, 10, nullptr, nullptr, 0, "/lib/sounds/.0001 "},
              {4, 50, "2", nullptr, 0, "/lib/music/2 "},
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
    std::vector<std::string> paths;
    EXPECT_EQ(make_dpath(row.kind, row.level, "0001", row.client, row.owner, paths), row.result);
    std::string joined;
    for (const std::string &one : paths) joined += one + " ";
    EXPECT_EQ(joined, row.paths);
  }
}

TEST_F(Store, AppendedIdsLoseTheirPadding) {
  const struct {
    const char *path, *id;
    int number;
    bool keep_zeros;
    const char *result;
  } rows[] = {{"/q", "0042", 0, false, "/q/42"},  {"/q/", "400", 0, false, "/q/400"},
              {"/q", "0042", 0, true, "/q/0042"}, {"/q", "0000", 0, false, "/q/"},
              {"/q", "0042", -7, false, "/q/-7"}, {"/q", nullptr, 0, false, "/q/"}};
  for (const auto &row : rows) {
    std::string path = row.path;
    EXPECT_EQ(quota_str_append(path, row.number, row.id, row.keep_zeros),
              row.id != nullptr || row.number != 0);
    EXPECT_EQ(path, row.result);
  }
}

TEST_F(Store, AFileThatCannotBeWrittenKeepsItsRecord) {
  box.write_file("record", "12.7");
  const unique_fd file(::open(path("record").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(quota_write_internal(file.get(), 5, 0), -1);
  EXPECT_EQ(box.read_file("record"), "12.7");
}

TEST_F(Store, MissingDirectoriesAreMadeUpToTheFirstObstacle) {
  const quota_umask mask;
  box.write_file("file", "");
  const struct {
    std::string path;
    int error;
    const char *there;
  } rows[] = {{"a/b/c", 0, "a/b/c"},
              {"a/b/d/", 0, "a/b/d"},
              {"e//f", 0, "e/f"},
              {"file/g", ENOTDIR, nullptr},
              {"h/" + std::string(300, 'h'), ENAMETOOLONG, "h"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(make_dirs(path(row.path).c_str(), 0770, ::getuid(), ::getgid()),
              row.error == 0 ? 0 : -1);
    EXPECT_EQ(errno, row.error);
    if (row.there == nullptr) continue;
    EXPECT_EQ(fs::status(path(row.there)).permissions(), fs::perms{0770});
  }
  EXPECT_EQ(make_dirs(nullptr, 0770, 0, 0), -1);
}

TEST_F(Store, MarksStandBesideTheirFile) {
  const quota_umask mask;
  quota_folder folder(path("account"));
  EXPECT_EQ(set_dirty(folder, "fax.quota"), -1) << "no folder yet";
  ASSERT_TRUE(folder.make(::getuid(), ::getgid()));
  EXPECT_EQ(unset_dirty(folder, "fax.quota"), -1);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(is_dirty(folder, "fax.quota"), i);
    EXPECT_EQ(set_dirty(folder, "fax.quota"), 0);
  }
  EXPECT_EQ(fs::status(path("account/fax.quota.dirty")).permissions(), fs::perms{0660});
  EXPECT_EQ(unset_dirty(folder, "fax.quota"), 0);
  EXPECT_EQ(is_dirty(folder, "fax.quota"), 0);
  EXPECT_EQ(is_dirty(quota_folder(path("missing")), "fax.quota"), 0);
}

TEST_F(Store, ARedoMarkStaysWhileAnotherRefreshWorksUnderIt) {
  quota_folder folder(box.root());
  ASSERT_TRUE(folder.open());
  const std::string mark = path("quota.redo");
  auto working = std::make_unique<redo_mark>(folder);
  ASSERT_TRUE(working->set());
  redo_mark beside(folder);
  beside.look();
  EXPECT_TRUE(beside.was_there());
  beside.settle(true);
  EXPECT_TRUE(fs::exists(mark)) << "the one that set it may yet be killed";
  working.reset();
  beside.settle(true);
  EXPECT_FALSE(fs::exists(mark));
}

TEST_F(Store, ARedoMarkThatWasSetSinceIsLeft) {
  quota_folder folder(box.root());
  ASSERT_TRUE(folder.open());
  redo_mark own(folder);
  ASSERT_TRUE(own.set());
  std::this_thread::sleep_for(
      std::chrono::milliseconds(20));  // beyond the clock of the file system
  ASSERT_TRUE(redo_mark(folder).set());
  own.settle(true);
  EXPECT_TRUE(fs::exists(path("quota.redo")));
}

TEST_F(Store, ALinkOfRootsIsNotFollowedOnThroughALinkOfOthers) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root, whose links count";
  for (const char *folder : {"own", "secret", "shared"}) box.make_folder(folder);
  fs::permissions(path("own"), fs::perms{0755});
  fs::permissions(path("shared"), fs::perms{0777});
  fs::create_symlink(path("secret"), path("own/direct"));
  fs::create_symlink(path("shared/12"), path("own/on"));
  fs::create_symlink(path("secret"), path("shared/12"));
  const unique_fd own(::open(path("own").c_str(), folder_flags));
  EXPECT_TRUE(open_entry(own.get(), "direct", folder_flags));
  EXPECT_FALSE(open_entry(own.get(), "on", folder_flags));
  EXPECT_EQ(errno, ELOOP);
}

}  // namespace
