// The slow refresh: what it computes, what it leaves alone, and what it does with damaged data.
#include <sys/stat.h>

#include <cstdlib>

#include "main/quota/marks.h"
#include "main/quota/refresh.h"
#include "main/quota/tally.h"
#include "main/quota/usage.h"
#include "platform/base/ids.h"
#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;

class Refresh : public refresh_test {
 protected:
  int refresh(unsigned kind = QUOTA_ALL_KINDS, int force = 10) const {
    return quota_update_slow(1, kind, nullptr, force);
  }
};

TEST_F(Refresh, ATargetHasItsOwnUsageWithItsChildrens) {
  box.write_file(box.sound_folder("0003") + "/padded.wav", 600);
  EXPECT_EQ(quota_update_slow(3, QUOTA_ALL_KINDS, nullptr, 0), 0);
  EXPECT_EQ(stored(), (figures{{"1", "- - - - -"},
                               {"1/3", "0.0 604.0 0.0 0.0 0.0"},
                               {"1/3/31", "0.0 4.0 0.0 0.0 0.0"}}));
  EXPECT_EQ(quota_update_slow(21, QUOTA_RECORDING, nullptr, 0), 0);
  EXPECT_EQ(stored()["1/2/21"], "- - 30.0 - -");
  int64_t total = 0;
  EXPECT_EQ(quota_update_slow(1, QUOTA_ALL_KINDS, &total, 10), 0);
  EXPECT_EQ(stored(), right_figures);
  EXPECT_EQ(total, 51) << "the last kind's";
}

TEST_F(Refresh, AFileIsComputedAgainWhenItIsDueOrForced) {
  box.add_reseller(5, "lonely");
  box.write_file(box.sound_folder("0005") + "/a.wav", 500);
  const struct {
    const char *why;
    std::string record;
    bool marked;
    int force;
    std::string after;
  } rows[] = {{.why = "fresh", .record = "7.0", .after = "7.0"},
              {.why = "almost updated too often", .record = "7.999", .after = "7.999"},
              {.why = "updated too often", .record = "7.1000", .after = "500.0"},
              {.why = "a bad revision", .record = "7.-1", .after = "500.0"},
              {.why = "no record", .record = "7", .after = "500.0"},
              {.why = "dirty", .record = "7.0", .marked = true, .after = "500.0"},
              {.why = "forced", .record = "7.0", .force = 1, .after = "500.0"},
              {.why = "forced for no level", .record = "7.0", .force = -1, .after = "7.0"}};
  const std::string path = box.quota_path("5/sound");
  for (const auto &row : rows) {
    box.write_file(path, row.record);
    if (row.marked) box.write_file(path + ".dirty", "");
    int64_t total = -77;
    EXPECT_EQ(quota_update_slow(5, QUOTA_SOUND, &total, row.force), 0);
    EXPECT_EQ(box.read_file(path), row.after) << row.why;
    EXPECT_EQ(total, std::stoll(row.after)) << row.why;
  }
}

TEST_F(Refresh, ForceReachesAsManyLevelsAsItSays) {
  const struct {
    int force;
    std::string reseller, client, owner;  // the sounds; nothing else was asked for
  } rows[] = {{0, "9.5", "9.5", "9.5"},
              {1, "1018.0", "9.5", "9.5"},
              {2, "1227.0", "218.0", "9.5"},
              {3, "1234.0", "230.0", "30.0"}};
  for (const auto &row : rows) {
    store_everywhere("9.5");
    EXPECT_EQ(refresh(QUOTA_SOUND, row.force), 0);
    EXPECT_EQ(box.read_file(box.quota_path("1/sound")), row.reseller) << row.force;
    EXPECT_EQ(box.read_file(box.quota_path("1/2/sound")), row.client) << row.force;
    EXPECT_EQ(stored()["1/2/21"], "9.5 " + row.owner + " 9.5 9.5 9.5") << row.force;
  }
}

TEST_F(Refresh, ALongIdIsCutToItsLastFourDigits) {
  box.add_reseller(12345, "long");
  box.add_client(77, 2345, "child of the cut id");
  box.add_client(23456, 12345, "child of the long id");
  box.write_file(box.sound_folder("2345") + "/a.wav", 1);
  box.write_file(box.sound_folder("12345") + "/a.wav", 10);
  box.write_file(box.sound_folder("77") + "/a.wav", 100);
  EXPECT_EQ(quota_update_slow(12345, QUOTA_SOUND, nullptr, 10), 0);
  EXPECT_EQ(stored(), (figures{{"12345", "- 101.0 - - -"}, {"12345/77", "- 100.0 - - -"}}));
}

TEST_F(Refresh, RefusesWhatItCannotLocate) {
  box.add_account(7, std::nullopt, 0, "root");
  box.add_owner(8, 99, "orphan");
  box.add_account(9, 1, 20, "odd");
  const struct {
    const char *why;
    int account;
    unsigned kind;
    int result;
  } rows[] = {{"no such kind", 1, 6, -1},
              {"no such account", 4444, QUOTA_ALL_KINDS, -2},
              {"its parent is nobody", 8, QUOTA_ALL_KINDS, -1},
              {"the root of all accounts", 7, QUOTA_ALL_KINDS, 0},
              {"no such level", 9, QUOTA_ALL_KINDS, 0}};
  for (const auto &row : rows) {
    EXPECT_EQ(quota_update_slow(row.account, row.kind, nullptr, 10), row.result) << row.why;
    EXPECT_EQ(stored(), figures{}) << row.why;
  }
  qx_sql_pool_destroy();
  EXPECT_EQ(refresh(), -1) << "no database";
}

TEST_F(Refresh, FilesHaveTheirModesAndOwnerWhateverTheUmask) {
  ::umask(0177);
  ASSERT_EQ(refresh(QUOTA_MUSIC), 0);
  EXPECT_EQ(::umask(0177), 0177U) << "the caller's is back";
  uid_t uid = ::getuid();
  gid_t gid = ::getgid();
  if (uid == 0) get_ids("asterisk", "asterisk", &uid, &gid);
  for (const std::string &path :
       {quota_root(), quota_root() + "/1/2/22", box.quota_path("1/2/22/music")}) {
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode & 07777U, S_ISDIR(status.st_mode) ? 0770U : 0660U) << path;
    EXPECT_TRUE(status.st_uid == uid && status.st_gid == gid) << path;
  }
}

TEST_F(Refresh, OneRunHoldsOneConnection) {
  ASSERT_EQ(refresh(), 0);
  EXPECT_EQ(box.sql_value("SELECT COUNT(*) FROM information_schema.processlist "
                          "WHERE db = DATABASE() AND id <> CONNECTION_ID()"),
            "1");
}

TEST_F(Refresh, AccountsNestAsDeepAsTheRowsSay) {
  for (const int parent : {1, 2, 3}) {
    fs::remove_all(quota_root());
    box.sql("UPDATE client SET parent_client_id = " + std::to_string(parent) + " WHERE id = 1");
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(stored(), right_figures) << "reseller 1 below account " << parent;
  }
  box.add_account(6, 1, 10, "below");
  box.add_account(7, 6, 10, "further below");
  box.add_owner(8, 7, "owner");
  box.write_file(box.sound_folder("8") + "/a.wav", 8000);
  EXPECT_EQ(refresh(QUOTA_SOUND), 0);
  EXPECT_EQ(stored()["1/6/7/8"], "- 8000.0 - - -");
  EXPECT_EQ(box.read_file(box.quota_path("1/sound")), "9234.0");
}

TEST_F(Refresh, ARowWithoutALevelStopsTheWalkAtItsParent) {
  box.sql("UPDATE client SET level = NULL WHERE id = 31");
  EXPECT_EQ(refresh(QUOTA_SOUND), 0);
  EXPECT_EQ(box.read_file(box.quota_path("1/sound")), "1230.0");
  EXPECT_FALSE(fs::exists(quota_root() + "/1/3"));
}

TEST_F(Refresh, AWalkThatStopsIsReportedAndBeginsAgainNextTime) {
  store_everywhere("9.5");
  box.sql("RENAME TABLE client TO gone");
  const std::string given = quota_root() + "/1/";
  std::string directory = given;
  EXPECT_EQ(quota_update_subtree("1", nullptr, nullptr, 10, 5, directory, nullptr, 10, nullptr),
            -1);
  EXPECT_EQ(directory, given);
  EXPECT_EQ(stored()["1"], "9.5 9.5 9.5 9.5 9.5 redo");
  EXPECT_EQ(stored()["1/2"], "9.5 9.5 9.5 9.5 9.5");
  quota_folder folder(given);
  int64_t sum = 5;
  bool certain = true;
  EXPECT_EQ(grab_child_quotas("1", nullptr, nullptr, 1, folder, &sum, &certain), -1);
  EXPECT_EQ(sum, 5);
  for (const char *place : {"quota_update_subtree:", "grab_child_quotas:", " -MySQL error: "}) {
    EXPECT_TRUE(log.has(place)) << place;
  }
  box.sql("RENAME TABLE gone TO client");
  EXPECT_EQ(refresh(QUOTA_ALL_KINDS, 0), 0);
  EXPECT_EQ(stored()["1"], "18.0 1018.0 18.0 18.0 19.0") << "its own and both clients'";
}

TEST_F(Refresh, ARedoMarkStaysUntilAllFilesAreComputed) {
  store_everywhere("9.5");
  box.write_file("var/lib/quorvexquota/1/3/31/quota.redo", "");
  EXPECT_EQ(refresh(QUOTA_SOUND, 0), 0);
  EXPECT_EQ(stored()["1/3/31"], "9.5 4.0 9.5 9.5 9.5 redo") << "the other kinds are still due";
  EXPECT_EQ(refresh(QUOTA_SOUND, 10), 0);
  EXPECT_EQ(stored()["1/3/31"], "9.5 4.0 9.5 9.5 9.5 redo");
  EXPECT_EQ(stored()["1/3"], "9.5 4.0 9.5 9.5 9.5") << "a forced refresh takes its own mark away";
  EXPECT_EQ(quota_update_fast(QUOTA_FAX, 1, 0, 1, 3, 31), 0);
  EXPECT_EQ(refresh(QUOTA_ALL_KINDS, 0), 0);
  EXPECT_EQ(stored()["1/3/31"], "0.0 4.0 0.0 0.0 0.0");
  EXPECT_EQ(stored()["1/3"], "10.6 4.0 9.5 9.5 9.5");
}

TEST_F(Refresh, AFailedStatementIsRepairedByTheNextRefresh) {
  box.sql("RENAME TABLE extension_recording TO gone");
  EXPECT_EQ(refresh(QUOTA_ALL_KINDS, 0), 0);
  for (auto [place, files] : stored()) {
    EXPECT_TRUE(files.ends_with(" redo")) << place;
  }
  EXPECT_EQ(stored()["1"], "7.0 1234.0 0.0 3.0 51.0 redo");
  EXPECT_EQ(the_tally.refreshed, 0);
  EXPECT_EQ(the_tally.failed, static_cast<long>(right_figures.size()));
  box.sql("RENAME TABLE gone TO extension_recording");
  EXPECT_EQ(refresh(QUOTA_ALL_KINDS, 0), 0);
  EXPECT_EQ(stored(), right_figures);
  EXPECT_EQ(the_tally.refreshed, static_cast<long>(right_figures.size()));
  EXPECT_EQ(the_tally.bytes[QUOTA_SOUND], 2 * 1234) << "of the account that was asked for, twice";
}

TEST_F(Refresh, WaitsForAnotherHolderOfALock) {
  const std::string path = box.quota_path("1/2/sound");
  box.write_file(path, "1.0");
  const unique_fd held(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_SH), 0);
  support::background_process waiting([&] { return refresh() == 0; });
  EXPECT_FALSE(waiting.wait(std::chrono::milliseconds(200)).has_value());
  EXPECT_EQ(box.read_file(path), "1.0");
  ASSERT_EQ(::flock(held.get(), LOCK_UN), 0);
  EXPECT_EQ(waiting.wait(std::chrono::seconds(20)).value().status, 0);
  EXPECT_EQ(stored(), right_figures);
}

TEST_F(Refresh, OnlyGoodChildrensFilesAdd) {
  box.write_file(box.quota_path("1/3/fax"), "4.0");
  for (const std::string record : {"6.0", "6.5000", "-6.0", "6", ""}) {
    box.write_file(box.quota_path("1/2/fax"), record);
    quota_folder folder(quota_root() + "/1");
    ASSERT_TRUE(folder.open());
    int64_t sum = 1000;
    bool certain = true;
    EXPECT_EQ(grab_child_quotas("1", nullptr, nullptr, 0, folder, &sum, &certain), 0);
    EXPECT_EQ(sum, record.starts_with("6.") ? 1010 : 1004) << record;
    EXPECT_EQ(certain, record.find('.') != record.npos) << record;
  }
}

// A system without the user and the group. The lists are chosen before anything asks for a name.
struct empty_lists {
  empty_lists() {
    ::setenv("NSS_WRAPPER_PASSWD", "/dev/null", 1);
    ::setenv("NSS_WRAPPER_GROUP", "/dev/null", 1);
  }
};
class RefreshWithoutOwner : private empty_lists, public refresh_test {};

TEST_F(RefreshWithoutOwner, NothingIsWrittenForWhichTheLogHasOneLine) {
  log.expect(FR_LOG_ERROR, "user \"asterisk\" and group \"asterisk\"");
  for (const int account : {1, 2}) {
    EXPECT_EQ(quota_update_slow(account, QUOTA_ALL_KINDS, nullptr, 10), 0);
  }
  EXPECT_EQ(log.count("\"asterisk\""), 1U);
  EXPECT_EQ(stored(), figures{});
  quota_folder folder(box.root());
  ASSERT_TRUE(folder.open());
  EXPECT_EQ(set_dirty(folder, "fax.quota"), -1);
  EXPECT_EQ(is_dirty(folder, "fax.quota"), 1) << "the mark stays all the same";
}

}  // namespace
