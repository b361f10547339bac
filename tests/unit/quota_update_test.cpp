// Fast updates of quota files, and verification against the limits.
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <thread>

#include <spoolcap/quota.h>
#include "main/quota/kinds.h"
#include "tests/support/platform_test.h"

namespace {

namespace fs = std::filesystem;
using support::seconds_of;

// Reseller 1, client 2, owner 12.
class FastUpdate : public platform_test {
 protected:
  FastUpdate() : platform_test("../main/quota") {
    box.add_reseller(1, "reseller");
    box.add_client(2, 1, "client");
    box.add_owner(12, 2, "owner");
  }

  // The fax files of owner, client and reseller: "-" for none, "!" behind one with a dirty mark.
  texts stored() const {
    texts found;
    for (const std::string &path : {owner, client, reseller}) {
      found.push_back(box.read_file(path).value_or("-") + (fs::exists(path + ".dirty") ? "!" : ""));
    }
    return found;
  }

  // Leaves the three files as stored() tells them.
  void store(const texts &records) {
    fs::remove_all(fs::path(reseller).parent_path());
    const std::string *paths[] = {&owner, &client, &reseller};
    for (size_t i = 0; i < records.size(); ++i) {
      if (records[i] == "-") continue;
      box.write_file(*paths[i], records[i].substr(0, records[i].find('!')));
      if (records[i].ends_with('!')) box.write_file(*paths[i] + ".dirty", "");
    }
  }

  std::string owner = box.quota_path("1/2/12/fax");
  std::string client = box.quota_path("1/2/fax");
  std::string reseller = box.quota_path("1/fax");
};

TEST_F(FastUpdate, AddsToOneFileOrLeavesAMark) {
  constexpr int64_t gib = 1 << 30;
  const struct {
    const char *before;
    int64_t delta;
    std::string after;
    int result;
  } rows[] = {{"200.4", -500, "0.5", 0},
              {"200.4", 0, "200.4", 200},
              {"5.999", 1, "6.1000", 6},
              {"-", 0, "0.1", 0},
              {"-", 7, "7.1", 7},
              {"-", -7, "0.1", 0},
              {"5.1!", 1, "5.1!", -1},
              {"abc", 1, "abc!", -1},
              {"", 1, "!", -1},
              {"-1.3", 1, "-1.3!", -1},
              {"5.-1", 1, "5.-1!", 5},
              {"-5.1", 0, "-5.1", -5},
              {"2147483647.1", 1, "2147483648.2", static_cast<int>(-2 * gib)},
              {"4294967296.1", 5, "4294967301.2", 5},
              {"9223372036854775807.1", 1, "9223372036854775807.2", -1},
              {"1.2147483647", 1, "2.2147483647", 2},
              // As a writer that was killed leaves it: before a longer record, and before the cut.
              {"9.9.....", 991, "1000.10", 1000},
              {"999.0999", 1, "1000.1000", 1000}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.before << " + " << row.delta);
    store({row.before});
    EXPECT_EQ(quota_upd_fast_internal(owner.c_str(), row.delta, 0), row.result);
    EXPECT_EQ(stored()[0], row.after);
  }
  EXPECT_EQ(quota_upd_fast_internal("fax.quota", 1, 0), -1) << "a path without a directory";
}

TEST_F(FastUpdate, ReachesAllAboveTheAccount) {
  store({"-", "100.3", "abc"});
  const mode_t before = ::umask(022);
  EXPECT_EQ(quota_update(12, QUOTA_FAX, 50, -1), 0);
  EXPECT_EQ(stored(), (texts{"50.1", "150.4", "abc!"}));
  EXPECT_EQ(::umask(before), 022U) << "the caller's umask is back";
  EXPECT_EQ(fs::status(owner).permissions(), fs::perms(0660));
  EXPECT_EQ(fs::status(fs::path(owner).parent_path()).permissions(), fs::perms(0770));
  // An account of another level is passed on the way up.
  box.add_account(7, 1, 20, "between");
  box.add_client(2000, 7, "below it");
  EXPECT_EQ(quota_update(2000, QUOTA_SOUND, 9, 0), 0);
  EXPECT_EQ(box.read_file(box.quota_path("1/2000/sound")), "9.1");
  EXPECT_EQ(quota_update(2, QUOTA_FAX, 50, 0), 0);
  EXPECT_EQ(quota_update_fast(QUOTA_FAX, 50, 0, 1, 2, 0), 0);
  EXPECT_EQ(stored(), (texts{"50.1", "250.6", "abc!"}));
}

TEST_F(FastUpdate, GivesUpOnALockAfterItsWait) {
  store({"1.1", "1.1", "1.1"});
  unique_fd held(::open(client.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  const double waited = seconds_of([&] { quota_update_fast(QUOTA_FAX, 1, 30, 1, 2, 12); });
  EXPECT_GE(waited, 0.04);
  EXPECT_LT(waited, 20) << "and not until the holder lets go";
  EXPECT_EQ(stored(), (texts{"2.2", "1.1!", "2.2"}));

  fs::remove(client + ".dirty");
  std::jthread letting_go([&] {
    fine_sleep(0.05F);
    held.reset();
  });
  quota_update_fast(QUOTA_FAX, 1, 60'000, 1, 2, 12);
  EXPECT_EQ(stored(), (texts{"3.3", "2.2", "3.3"}));

  const unique_fd again(::open(client.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(again.get(), LOCK_EX), 0);
  EXPECT_GE(seconds_of([] { quota_update(12, QUOTA_FAX, 1, -1); }), 0.04) << "the usual wait";
}

TEST_F(FastUpdate, AFullDiskNeverLeavesAValueThatLooksRight) {
  box.write_file(owner, "5.1");
  support::run_forked([] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_FSIZE, &none);
    return quota_update_fast(QUOTA_FAX, 5, 0, 1, 2, 12) == 0;
  });
  EXPECT_EQ(stored(), (texts{"!", "!", "!"}));
}

TEST_F(FastUpdate, SaysWhichAccountCannotBeUpdated) {
  box.add_account(1000, std::nullopt, 0, "root");
  box.add_client(30, 31, "of a circle");
  box.add_client(31, 32, "of a circle");
  box.add_client(32, 31, "of a circle");
  box.add_client(33, 34, "without a parent");
  const struct {
    int account;
    unsigned kind;
    int update, verify;
  } rows[] = {{12, QUOTA_ALL_KINDS, -1, -1},
              {1000, QUOTA_FAX, -1, 0},
              {30, QUOTA_FAX, -1, -1},
              {33, QUOTA_FAX, -2, -2},
              {99, QUOTA_FAX, -2, -2}};
  log.expect(FR_LOG_ERROR, "returned:-2");
  log.expect(FR_LOG_ERROR, "returned:-1");
  testing::internal::CaptureStdout();
  for (const auto &row : rows) {
    EXPECT_EQ(quota_update(row.account, row.kind, 1, 0), row.update) << row.account;
    EXPECT_EQ(quota_verify(row.account, row.kind), row.verify) << row.account;
  }
  testing::internal::GetCapturedStdout();
  for (const auto &[kind, id] : {std::pair{QUOTA_FAX, 0}, {QUOTA_ALL_KINDS, 1}}) {
    EXPECT_EQ(quota_update_fast(kind, 1, 0, id, 2, 12), -1);
    EXPECT_EQ(quota_verify_disk(kind, id, 2, 12, 0, 0, 0), -1);
  }
  EXPECT_FALSE(fs::exists(reseller.substr(0, reseller.rfind('/'))));
  EXPECT_EQ(stored(), (texts{"-", "-", "-"}));
}

TEST_F(FastUpdate, VerificationNamesTheLowestFullAccount) {
  const struct {
    texts records;      // owner, client, reseller
    int64_t limits[3];  // of the same
    int result;
    texts after = {};  // none: as before
  } rows[] = {{{"10240.1", "10240.1", "9.1"}, {10240, 10240, 5}, 1'000'000'012},
              {{"10239.1", "10240.1", "9.1"}, {10240, 10240, 5}, 500'000'002},
              {{"10239.1", "10239.1", "9.1"}, {10240, 10240, 9}, 100'000'001},
              {{"10239.1", "10239.1", "9.1"}, {10240, 10240, 10}, 0},
              {{"9.1", "9.1", "9.1"}, {-1, -1024, 9}, 100'000'001},
              {{"0.1", "0.1", "0.1"}, {0, -1, -1}, 1'000'000'012},
              {{"2147483648.1", "4294967295.1", "4294967296.1"}, {5, 5, 5}, 0},
              {{"9.1!", "abc", "-"}, {5, 5, 5}, 0, {"9.1!", "abc!", "0.1"}},
              {{"-", "-", "-"}, {5, -1, 5}, 0, {"0.1", "-", "0.1"}}};
  for (const auto &[records, limits, result, after] : rows) {
    SCOPED_TRACE(testing::PrintToString(records));
    store(records);
    EXPECT_EQ(quota_verify_disk(QUOTA_FAX, 1, 2, 12, limits[2], limits[1], limits[0]), result);
    EXPECT_EQ(stored(), after.empty() ? records : after);
  }
}

TEST_F(FastUpdate, VerificationNeverWaits) {
  box.write_file(owner, "9.1");
  const unique_fd held(::open(owner.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  double shortest = 1;
  for (int i = 0; i < 10; ++i) {
    fs::remove(owner + ".dirty");
    shortest =
        std::min(shortest, seconds_of([] { quota_verify_disk(QUOTA_FAX, 1, 2, 12, -1, -1, 5); }));
    EXPECT_EQ(stored()[0], "9.1!");
  }
  EXPECT_LT(shortest, 0.01) << "less than one pause between two tries";
}

TEST_F(FastUpdate, VerificationTakesLimitsInKib) {
  const struct {
    const char *preference, *bytes;
    unsigned kind;
    int result;
  } rows[] = {{"fax_storage", "1024.7", QUOTA_FAX, 1'000'000'012},
              {"max_sound", "2048.7", QUOTA_SOUND, 1'000'000'012},
              {"max_record", "3072.7", QUOTA_RECORDING, 1'000'000'012},
              {"max_voice", "4096.7", QUOTA_VOICEMAIL, 1'000'000'012},
              {"max_moh", "5119.7", QUOTA_MUSIC, 0}};
  for (const auto &row : rows) box.set_preference(12, row.preference, std::to_string(row.kind + 1));
  box.set_preference(2, "max_sound", "99999999999999999999");
  for (const auto &[preference, bytes, kind, result] : rows) {
    box.write_file(box.quota_path(std::string("1/2/12/") + media_kinds[kind].name), bytes);
    const std::string line = " + quota_verify(target:" + std::to_string(kind) +
                             ", resid:1, clid:2, extid:12) returned:" + std::to_string(result) +
                             (result == 0 ? " (if >0 it means: client.id:0, client.level:0)"
                                          : " (if >0 it means: client.id:12, client.level:100)");
    testing::internal::CaptureStdout();
    EXPECT_EQ(quota_verify(12, kind), result);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + "\n");
    if (result != 0) log.expect(FR_LOG_ERROR, line);
    EXPECT_EQ(log.has(line), result != 0);
  }
}

}  // namespace
