#include "sqlsession.h"

#include <gtest/gtest.h>

#include "sql/pool.h"
#include "sql_owner.h"
#include "support/log_capture.h"
#include "support/paths_sandbox.h"
#include "support/sandbox.h"

namespace {

QX_LOG_SOURCE("../main/test");

using optional_text = std::optional<std::string>;

class SqlSession : public testing::Test {
 protected:
  ~SqlSession() override { qx_sql_pool_destroy(); }

  int read_files(const optional_text &credentials, const optional_text &servers) {
    for (const auto &[name, text] : {std::pair{"pbx", credentials}, std::pair{"sql", servers}}) {
      std::filesystem::remove(box.path(name));
      if (text) box.write_file(name, *text);
    }
    log.clear();
    return qx_sql_pool_init_from_config_files(box.path("pbx").c_str(), box.path("sql").c_str());
  }

  support::log_capture log;
  support::sandbox box;
};

std::string shards() {
  std::string all;
  for (const auto &shard : the_sql_pool().shards) {
    all += shard->id + "/" + shard->credentials.user + "/" + shard->credentials.database + " ";
  }
  return all;
}

}  // namespace

TEST_F(SqlSession, CredentialsAreTakenFromAnywhereInALineUpToItsFirstHash) {
  struct {
    const char *text;
    const char *shards;
    int status;
  } const rows[] = {
      {"DB_CREDENTIALS main:u:p:d\nDB_CREDENTIALS\tlog:v:p:e\n", "main/u/d log/v/e ", 0},
      {"old DB_CREDENTIALS=main:u:p:d # comment\n", "main/u/d ", 0},
      {"# DB_CREDENTIALS no:u:p:d\n#DB_CREDENTIALS no\nDB_CREDENTIALS   main:u:p:d", "main/u/d ",
       0},
      {"", "", 0},
      {"db_credentials main:u:p:d\n", "", 0},
      {"DB_CREDENTIALS main:u:p\nDB_CREDENTIALS log:u:p:d\n", "", -1},
      {"DB_CREDENTIALS log:u:p:d\nDB_CREDENTIALS", "log/u/d ", -1},
  };
  log.expect(FR_LOG_ERROR, "Invalid SQL credentials");
  for (const auto &row : rows) {
    EXPECT_EQ(read_files(row.text, "DB_MASTER main:h:1\n"), row.status) << row.text;
    EXPECT_EQ(shards(), row.shards) << row.text;
  }
}

TEST_F(SqlSession, EverySlaveDownTimeIsAppliedAndTheLastOneStays) {
  struct {
    const char *text;
    int seconds;
  } const rows[] = {
      {"", 30},
      {"SLAVE_DOWN_TIME 7\n", 7},
      {"SLAVE_DOWN_TIME 7\nxSLAVE_DOWN_TIME=  9 # for now\n", 9},
      {"SLAVE_DOWN_TIME 7\nSLAVE_DOWN_TIME soon\n", 0},
      {"SLAVE_DOWN_TIME 7\nSLAVE_DOWN_TIME", 0},
      {"#SLAVE_DOWN_TIME 7\n", 30},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(read_files("", std::string("DB_MASTER main:h:1\n") + row.text), 0) << row.text;
    EXPECT_EQ(the_sql_pool().down_time, row.seconds) << row.text;
  }
}

TEST_F(SqlSession, AMissingFileOrMasterIsAFailureToldInItsOwnWay) {
  EXPECT_EQ(read_files(std::nullopt, "DB_MASTER main:h:1\n"), -1);
  ASSERT_EQ(log.lines().size(), 1U);
  const support::log_line line = log.lines()[0];
  EXPECT_EQ(line.text, "../main/sqlsession:" + std::to_string(line.line) + ":condition failed");
  EXPECT_EQ(line.priority, FR_LOG_DEBUG);

  EXPECT_EQ(read_files("", std::nullopt), -1);
  EXPECT_TRUE(log.lines().empty()) << "a missing servers file has no message";

  log.expect(FR_LOG_ERROR, "Failed to find at least one master SQL server in <" + box.path("sql") +
                               ">. Invalid configuration, cannot start.");
  EXPECT_EQ(read_files("DB_CREDENTIALS main:u:p:d\n", "DB_SLAVE main:h:1\n"), -1);
}

TEST_F(SqlSession, ThePlatformsFilesGiveSessionsOnTheFirstShard) {
  EXPECT_EQ(sess_init(), nullptr) << "no pool yet";
  qx_sql_pool_init();
  const SessionHandle session = sess_init();
  ASSERT_NE(session, nullptr);
  sql_result rows;
  ASSERT_EQ(sql_query(QX_HERE, session, rows, "SELECT %s(), 100%%7", "DATABASE"), 0);
  const MYSQL_ROW row = mysql_fetch_row(rows.get());
  EXPECT_EQ(row[0], box.database());
  EXPECT_STREQ(row[1], "2");

  EXPECT_EQ(sql_query(QX_HERE, session, rows, "DO 0"), 0);
  EXPECT_FALSE(rows);
  const call_site here = QX_HERE;
  EXPECT_NE(sql_query(here, session, rows, "bogus"), 0);
  EXPECT_FALSE(rows);
  EXPECT_TRUE(log.has("../main/test:TestBody:" + std::to_string(here.line) +
                      " -MySQL error: You have an error in your SQL syntax"));
  sess_destroy(session);
  sess_destroy(nullptr);
}
