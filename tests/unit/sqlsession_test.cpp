// The pool as the platform's files set it up, and what the modules make of a statement.
#include <spoolcap/sqlsession.h>

#include <gtest/gtest.h>

#include "main/cache/read_through.h"
#include "main/sql/query.h"
#include "platform/sql/statement.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace {

class SqlSession : public testing::Test {
 protected:
  ~SqlSession() override { qx_sql_pool_destroy(); }

  int read_files(const std::string &pbx_text, const std::string &servers) {
    box.write_file("etc/quorvex/pbx.conf", pbx_text);
    box.write_file("sql", servers);
    return qx_sql_pool_init_from_config_files(pbx.c_str(), box.path("sql").c_str());
  }

  support::log_capture log;
  support::sandbox box;
  const std::string pbx = box.path("etc/quorvex/pbx.conf");
  const std::string credentials = "main:spoolcap:secret:" + box.database();
  const std::string master = *box.read_file("etc/quorvex/sqldbase.conf");
};

TEST(SqlStatement, OnlyASelectIsARead) {
  for (const char *text : {"sElEcT*FROM t", " \t\r\n(( select 1", "SELECT"}) {
    EXPECT_TRUE(is_read_statement(text)) << text;
  }
  for (const char *text : {"SELECTED", "SELECT_1", "SELEC", "", "/*! DELETE FROM t */ SELECT 1",
                           "UPDATE t SET a=(SELECT 1)", "WITH a AS (SELECT 1) SELECT * FROM a"}) {
    EXPECT_FALSE(is_read_statement(text)) << text;
  }
}

TEST_F(SqlSession, CredentialsAreTakenFromAnywhereInALineUpToItsFirstHash) {
  const struct {
    std::string text;
    bool connects;
  } rows[] = {{"old DB_CREDENTIALS=" + credentials + "# comment\n#DB_CREDENTIALS no\n", true},
              {"#DB_CREDENTIALS " + credentials + "\n", false},
              {"db_credentials " + credentials + "\n", false}};
  for (const auto &row : rows) {
    EXPECT_EQ(read_files(row.text, master), 0) << row.text;
    EXPECT_EQ(static_cast<bool>(sql_session()), row.connects) << row.text;
  }
}

TEST_F(SqlSession, EverySlaveDownTimeIsAppliedAndTheLastOneStays) {
  const struct {
    const char *text;
    size_t attempts;  // of two sessions to reach a slave that is down
  } rows[] = {{"#SLAVE_DOWN_TIME 0\n", 1},
              {"SLAVE_DOWN_TIME 7\nxSLAVE_DOWN_TIME=  -1 # for now\n", 2},
              {"SLAVE_DOWN_TIME 7\nSLAVE_DOWN_TIME", 2}};
  for (const auto &row : rows) {
    log.clear();
    EXPECT_EQ(read_files("DB_CREDENTIALS " + credentials,
                         master + "DB_SLAVE main:/nowhere:0\n" + row.text),
              0);
    for (int i = 0; i < 2; i++) sess_destroy(sess_init());
    EXPECT_EQ(log.count("Failed to connect to SQL slave"), row.attempts) << row.text;
  }
}

TEST_F(SqlSession, ALargestLagIsANumberOfSecondsAndAsksSlavesOnlyWhenItIsSet) {
  const std::tuple<const char *, size_t, size_t> rows[] = {{"", 0, 0},
                                                           {"SLAVE_MAX_LAG 0\n", 0, 1},
                                                           {"#SLAVE_MAX_LAG x\n", 0, 0},
                                                           {"SLAVE_MAX_LAG", 1, 0},
                                                           {"SLAVE_MAX_LAG -1\n", 1, 0},
                                                           {"SLAVE_MAX_LAG 5s # or 6\n", 1, 0}};
  log.expect(FR_LOG_ERROR, "Invalid SLAVE_MAX_LAG [5s]: a number of seconds is expected.");
  log.expect(FR_LOG_ERROR, "Invalid SLAVE_MAX_LAG [");
  const std::string slave = "DB_SLAVE" + master.substr(master.find(' '));
  for (const auto &[text, invalid, asked] : rows) {
    log.clear();
    EXPECT_EQ(read_files("DB_CREDENTIALS " + credentials, master + slave + text), 0);
    for (int i = 0; i < 2; i++) EXPECT_TRUE(sql_session()) << text;
    EXPECT_EQ(log.count("Invalid SLAVE_MAX_LAG"), invalid) << text;
    EXPECT_EQ(log.count("tells no lag and serves all the same: it is no replica"), asked) << text;
  }
}

TEST_F(SqlSession, WhatIsMissingIsAFailureWithAMessageOfItsOwn) {
  const std::string missing = box.path("missing");
  EXPECT_EQ(qx_sql_pool_init_from_config_files(pbx.c_str(), missing.c_str()), -1);
  EXPECT_TRUE(log.lines().empty()) << "a missing servers file has no message";
  EXPECT_EQ(qx_sql_pool_init_from_config_files(missing.c_str(), pbx.c_str()), -1);
  const support::log_line line = log.lines().at(0);
  EXPECT_EQ(line.text, "../main/sqlsession:" + std::to_string(line.line) + ":condition failed");
  log.expect(FR_LOG_ERROR, "Failed to find at least one master SQL server in <" + box.path("sql") +
                               ">. Invalid configuration, cannot start.");
  EXPECT_EQ(read_files("DB_CREDENTIALS main:u:p:d\n", "DB_SLAVE main:h:1\n"), -1);
  log.expect(FR_LOG_ERROR, "Invalid SQL credentials");
  EXPECT_EQ(read_files("DB_CREDENTIALS main:u:p:d\nDB_CREDENTIALS", master), -1);
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

// The routines that every module asks the database with; each gives the first column, or null.
c_string by_query(const call_site &site, SessionHandle session, const char *statement) {
  const sql_session own(session);
  sql_result rows;
  if (!own) log_condition_failed(site);
  if (!own || sql_query(site, own.get(), rows, "%s", statement) != 0) return nullptr;
  return column_or_nothing(rows.get());
}
c_string by_text(const call_site &site, SessionHandle session, const char *statement) {
  return sql_text(site, session, "%s", statement);
}
c_string by_read_through(const call_site &site, SessionHandle session, const char *statement) {
  const field_lookup lookup = {
      .key_format = "k", .field = "f", .statement = statement, .value_of = column_or_nothing};
  return read_through(site, lookup, lookup_argument(nullptr), session).value;
}

TEST_F(SqlSession, AFailureIsLoggedInTheNameOfTheCallerAndGivesNothing) {
  using routine = c_string (*)(const call_site &, SessionHandle, const char *);
  const call_site here = QX_HERE;
  const std::string place = std::to_string(here.line);
  for (const routine ask : {routine(by_query), routine(by_text), routine(by_read_through)}) {
    qx_sql_pool_init();
    {
      const sql_session borrowed;
      qx_sql_pool_destroy();  // no other session can be had
      EXPECT_STREQ(ask(here, borrowed.get(), "SELECT 'v'").get(), "v");
      box.redis({"DEL", "k"});
      log.clear();
      EXPECT_EQ(ask(here, borrowed.get(), "bogus"), nullptr);
      EXPECT_TRUE(log.has("../main/test:TestBody:" + place +
                          " -MySQL error: You have an error in your SQL syntax"));
    }
    EXPECT_EQ(ask(here, nullptr, "SELECT 'v'"), nullptr);
    EXPECT_TRUE(log.has("../main/test:" + place + ":condition failed")) << "no session";
    EXPECT_EQ(box.redis({"EXISTS", "k"}), "0");
  }
  qx_sql_pool_init();
  log.clear();
  EXPECT_EQ(sql_text(here, nullptr, "SELECT NULL"), nullptr);
  EXPECT_TRUE(log.has(":condition failed")) << "a NULL column is no text";
}

}  // namespace
