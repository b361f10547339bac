// The sum of stored files by level of the account.
#include <gtest/gtest.h>

#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_db_files.h>
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

TEST(DbFilesQuota, ALevelCountsTheFilesOfAllExtensionsBelowItAndFailuresAreMinusOneAndTold) {
  support::log_capture log;
  support::sandbox box;
  for (const int client : {10, 11, 20}) box.add_client(client, client / 10, "client");
  for (const int owner : {100, 101, 110, 200}) box.add_owner(owner, owner / 10, "owner");
  std::int64_t size = 1;
  for (const int extension : {1000, 1001, 1010, 1100, 2000}) {
    box.add_extension(extension, extension / 10, std::to_string(extension));
    box.add_recording(extension, size);
    box.add_voicemail(extension, 2 * size);
    box.add_fax(extension, 3 * size);
    size *= 10;
  }
  box.add_recording(1100, 5'000'000'000);  // beyond 32 bits
  qx_sql_pool_init();
  struct {
    const char *table;
    int level;
    const char *id;
    std::int64_t sum;
  } const rows[] = {
      {"extension_fax_center", 100, "100", 33},
      {"extension_recording", 50, "10", 111},
      {"extension_voicemail", 50, "11", 2000},
      {"extension_recording", 10, "1", 5'000'001'111},
      {"extension_fax_center as er", 0, "1", 33'333},
      {"extension_fax_center", 0, "1", -1},   // the statement relies on the alias
      {"extension_recording", 100, "10", 0},  // an account of another level owns none
      {"extension_recording", 100, "1' GROUP BY er.id -- ", -1},  // no row at all is no sum
      {"no_such_table", 20, "1", 0},  // a level that is none needs no statement
      {"no_such_table", 100, "1", -1}};
  for (const auto &row : rows) {
    EXPECT_EQ(qx_get_db_files_quota(row.table, row.level, row.id), row.sum)
        << row.table << " level " << row.level << " of " << row.id;
  }
  EXPECT_TRUE(log.has(" -MySQL error: Table '" + box.database() + ".no_such_table' doesn't exist"));

  qx_sql_pool_destroy();
  log.clear();
  EXPECT_EQ(qx_get_db_files_quota("extension_recording", 100, "100"), -1);
  EXPECT_TRUE(log.has(":condition failed"));
}
