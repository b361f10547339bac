// The sum of stored files by level of the account.
#include <gtest/gtest.h>

#include "sqlsession.h"
#include "support/log_capture.h"
#include "support/sandbox.h"
#include "zarn_db_files.h"

namespace {

class DbFilesQuota : public testing::Test {
 protected:
  DbFilesQuota() {
    box.add_reseller(1, "reseller");
    box.add_reseller(2, "other reseller");
    box.add_client(10, 1, "client");
    box.add_client(11, 1, "second client");
    box.add_client(20, 2, "other client");
    box.add_owner(100, 10, "owner");
    box.add_owner(101, 10, "second owner");
    box.add_owner(110, 11, "owner of the second client");
    box.add_owner(200, 20, "other owner");
    const int owners[] = {100, 100, 101, 110, 200};  // of the extensions 1, 2, ...
    std::int64_t size = 1;
    for (int i = 0; i < 5; i++, size *= 10) {
      box.add_extension(i + 1, owners[i], std::to_string(100 + i));
      box.add_recording(i + 1, size);
      box.add_voicemail(i + 1, 2 * size);
      box.add_fax(i + 1, 3 * size);
    }
    qx_sql_pool_init();
  }

  support::log_capture log;
  support::sandbox box;
};

}  // namespace

TEST_F(DbFilesQuota, ALevelCountsTheFilesOfAllExtensionsBelowIt) {
  box.add_recording(4, 5'000'000'000);  // beyond 32 bits
  struct {
    const char *table;
    int level;
    const char *id;
    std::int64_t sum;
  } const rows[] = {
      {"extension_recording", 100, "100", 11},
      {"extension_voicemail", 100, "100", 22},
      {"extension_fax_center", 100, "100", 33},
      {"extension_recording", 100, "110", 5'000'001'000},
      {"extension_recording", 50, "10", 111},
      {"extension_voicemail", 50, "11", 2000},
      {"extension_fax_center", 50, "20", 30'000},
      {"extension_recording", 10, "1", 5'000'001'111},
      {"extension_voicemail", 10, "2", 20'000},
      {"extension_fax_center as er", 0, "1", 33'333},
      {"extension_fax_center", 0, "1", -1},   // the statement relies on the alias
      {"extension_recording", 100, "10", 0},  // an account of another level owns none
      {"extension_recording", 50, "100", 0},
      {"extension_recording", 10, "999", 0},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(qx_get_db_files_quota(row.table, row.level, row.id), row.sum)
        << row.table << " level " << row.level << " of " << row.id;
  }
}

TEST_F(DbFilesQuota, AnyOtherLevelIsZeroWithoutAStatement) {
  for (const int level : {20, 1, 99, 101, -1}) {
    EXPECT_EQ(qx_get_db_files_quota("no_such_table", level, "1"), 0) << level;
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(DbFilesQuota, FailuresAreMinusOneAndTold) {
  EXPECT_EQ(qx_get_db_files_quota("no_such_table", 100, "1"), -1);
  EXPECT_TRUE(log.has("../main/zarn_db_files:qx_get_db_files_quota:"));
  EXPECT_TRUE(log.has(" -MySQL error: Table '" + box.database() + ".no_such_table' doesn't exist"));
  EXPECT_EQ(qx_get_db_files_quota("extension_recording", 100, "1' GROUP BY er.id -- "), -1)
      << "no row at all is no sum";

  qx_sql_pool_destroy();
  log.clear();
  EXPECT_EQ(qx_get_db_files_quota("extension_recording", 100, "1"), -1);
  ASSERT_EQ(log.lines().size(), 1U);
  const support::log_line line = log.lines()[0];
  EXPECT_EQ(line.text, "../main/zarn_db_files:" + std::to_string(line.line) + ":condition failed");
}
