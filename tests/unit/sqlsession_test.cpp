#include <spoolcap/sqlsession.h>

#include <gtest/gtest.h>

#include "main/sql/query.h"
#include "platform/sql/pool.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace {

class SqlSession : public testing::Test {
 protected:
  ~SqlSession() override { qx_sql_pool_destroy(); }

  int read_files(const std::string &credentials, const std::string &servers) {
    box.write_file("etc/quorvex/pbx.conf", credentials);
    box.write_file("sql", servers);
    return qx_sql_pool_init_from_config_files(pbx.c_str(), box.path("sql").c_str());
  }

  support::log_capture log;
  support::sandbox box;
  const std::string pbx = box.path("etc/quorvex/pbx.conf");
};

}  // namespace

TEST_F(SqlSession, CredentialsAreTakenFromAnywhereInALineUpToItsFirstHash) {
  const struct {
    const char *text;
    const char *shards;
    int status;
  } rows[] = {{"DB_CREDENTIALS main:u:p:d\nDB_CREDENTIALS\tlog:v:p:e\n", "main/u/d log/v/e ", 0},
              {"old DB_CREDENTIALS=main:u:p:d # comment\n#DB_CREDENTIALS no\n", "main/u/d ", 0},
              {"db_credentials main:u:p:d\n", "", 0},
              {"DB_CREDENTIALS main:u:p\nDB_CREDENTIALS log:u:p:d\n", "", -1},
              {"DB_CREDENTIALS log:u:p:d\nDB_CREDENTIALS", "log/u/d ", -1}};
  log.expect(FR_LOG_ERROR, "Invalid SQL credentials");
  for (const auto &row : rows) {
    EXPECT_EQ(read_files(row.text, "DB_MASTER main:h:1\n"), row.status) << row.text;
    std::string shards;
    for (const auto &shard : the_sql_pool().shards) {
      shards += shard->id + "/" + shard->credentials.user + "/" + shard->credentials.database + " ";
    }
    EXPECT_EQ(shards, row.shards) << row.text;
  }
}

TEST_F(SqlSession, EverySlaveDownTimeIsAppliedAndTheLastOneStays) {
  for (const auto &[text, seconds] : {std::pair("#SLAVE_DOWN_TIME 7\n", 30),
                                      {"SLAVE_DOWN_TIME 7\nxSLAVE_DOWN_TIME=  9 # for now\n", 9},
                                      {"SLAVE_DOWN_TIME 7\nSLAVE_DOWN_TIME", 0}}) {
    EXPECT_EQ(read_files("", std::string("DB_MASTER main:h:1\n") + text), 0) << text;
    EXPECT_EQ(the_sql_pool().down_time, seconds) << text;
  }
}

TEST_F(SqlSession, AMissingFileOrMasterIsAFailureToldInItsOwnWay) {
  const std::string missing = box.path("missing");
  EXPECT_EQ(qx_sql_pool_init_from_config_files(pbx.c_str(), missing.c_str()), -1);
  EXPECT_TRUE(log.lines().empty()) << "a missing servers file has no message";
  EXPECT_EQ(qx_sql_pool_init_from_config_files(missing.c_str(), pbx.c_str()), -1);
  const support::log_line line = log.lines().at(0);
  EXPECT_EQ(line.text, "../main/sqlsession:" + std::to_string(line.line) + ":condition failed");
  log.expect(FR_LOG_ERROR, "Failed to find at least one master SQL server in <" + box.path("sql") +
                               ">. Invalid configuration, cannot start.");
  EXPECT_EQ(read_files("DB_CREDENTIALS main:u:p:d\n", "DB_SLAVE main:h:1\n"), -1);
}

TEST_F(SqlSession, CredentialsThatEverybodyMayReadAreWarnedOfOnce) {
  for (const auto &[mode, warnings] : {std::pair(0640, 0U), {0604, 1U}}) {
    std::filesystem::permissions(pbx, std::filesystem::perms(mode));
    qx_sql_pool_init();
    EXPECT_EQ(log.count("Everybody may read <" + pbx + ">, which holds the database password."),
              warnings);
  }
  log.expect(FR_LOG_WARNING, "Everybody may read <");
}

TEST_F(SqlSession, ThePlatformsFilesGiveSessionsOnTheFirstShard) {
  EXPECT_EQ(sess_init(), nullptr) << "no pool yet";
  qx_sql_pool_init();
  const sql_session session;
  sql_result rows;
  ASSERT_EQ(sql_query(QX_HERE, session.get(), rows, "SELECT %s(), 100%%7", "DATABASE"), 0);
  const MYSQL_ROW row = mysql_fetch_row(rows.get());
  EXPECT_EQ(row[0], box.database());
  EXPECT_STREQ(row[1], "2");
  EXPECT_EQ(sql_query(QX_HERE, session.get(), rows, "DO 0"), 0);
  EXPECT_FALSE(rows);
  const call_site here = QX_HERE;
  EXPECT_NE(sql_query(here, session.get(), rows, "bogus"), 0);
  EXPECT_FALSE(rows);
  EXPECT_TRUE(log.has("../main/test:TestBody:" + std::to_string(here.line) +
                      " -MySQL error: You have an error in your SQL syntax"));
}
