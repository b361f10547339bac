#include "sql/sqlpool.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <set>
#include <thread>

#include "base/owner.h"
#include "sql/pool.h"
#include "sql/statement.h"
#include "support/log_capture.h"
#include "support/servers.h"

using namespace std::chrono_literals;
using support::mariadb_server;

namespace {

using session = std::unique_ptr<fr_sql_conn_t, call_to_release<fr_sqlpool_conn_free>>;

session take(int shard = 0) {
  return session(fr_sqlpool_conn_get(shard));
}

// First column of the first row; the error text when the statement fails, "" when it gives none.
std::string ask(const session &from, const std::string &statement) {
  MYSQL_RES *rows = nullptr;
  if (fr_sql_conn_query(from.get(), 1, &rows, "%s", statement.c_str()) != 0) {
    EXPECT_EQ(rows, nullptr);
    const std::string error = mysql_error(fr_sql_conn_get_mysql(from.get()));
    EXPECT_NE(error, "") << "a failure without a reason";
    return "error: " + error;
  }
  const mysql_result owned(rows);
  const MYSQL_ROW row = rows == nullptr ? nullptr : mysql_fetch_row(rows);
  return row == nullptr || row[0] == nullptr ? "" : row[0];
}

std::string server_of(const session &of) {
  return ask(of, "SELECT @@socket");
}
std::string id_of(const session &of) {
  return ask(of, "SELECT CONNECTION_ID()");
}
bool failed(const std::string &answer) {
  return answer.starts_with("error: ");
}

double seconds_of(const auto &work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string line(const char *kind, const mariadb_server &server) {
  return std::string(kind) + " main:" + server.socket() + ":0\n";
}

class SqlPool : public testing::Test {
 protected:
  ~SqlPool() override { fr_sqlpool_destroy(); }

  int read_servers(const std::string &text, int need_master = 1) const {
    const std::string path = folder.path() / "servers";
    std::ofstream(path) << text;
    return fr_sql_shard_parse_connection_info(path.c_str(), nullptr, need_master);
  }

  void start(const std::string &servers, double idle_limit = 60.0) const {
    ASSERT_EQ(fr_sqlpool_init_api(nullptr, nullptr, idle_limit), 0);
    fr_sqlpool_verbosity_set(100);
    const std::string credentials =
        std::string("main:") + support::database_user + ":" + support::database_password + ":mysql";
    ASSERT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info(credentials.c_str())), 0);
    ASSERT_EQ(read_servers(servers), 0);
  }

  support::log_capture log;
  support::private_folder folder{"sqlpool"};
};

}  // namespace

TEST(SqlStatement, OnlyASelectIsARead) {
  struct {
    const char *text;
    bool is_read;
  } const rows[] = {
      {"SELECT 1", true},
      {"sElEcT*FROM t", true},
      {" \t\r\n(( select 1", true},
      {"/* UPDATE */ -- DELETE\n# DROP\nSELECT 1", true},
      {"SELECT", true},
      {"--1 SELECT", false},
      {"SELECTED", false},
      {"SELECT_1", false},
      {"SELEC", false},
      {"", false},
      {"/* SELECT", false},
      {"-- SELECT", false},
      {"/*! DELETE FROM t */ SELECT 1", false},
      {"/*M! DELETE FROM t */ SELECT 1", false},
      {"UPDATE t SET a=(SELECT 1)", false},
      {"CALL p()", false},
      {"WITH a AS (SELECT 1) SELECT * FROM a", false},
  };
  for (const auto &row : rows) EXPECT_EQ(is_read_statement(row.text), row.is_read) << row.text;
}

TEST_F(SqlPool, CredentialsNameShardUserAndDatabaseAndThePasswordMayHoldColons) {
  fr_sqlpool_verbosity_set(100);
  log.expect(FR_LOG_ERROR, "Invalid SQL credentials");
  struct {
    const char *value;
    const char *parsed;
  } const rows[] = {
      {"main:u:p:d", "main|u|p|d"},
      {" main:u:p:d\n", "main|u|p|d"},
      {"main:u::d", "main|u||d"},
      {"main:u:a:b:c:d", "main|u|a:b:c|d"},
      {"main:u:p", "none"},
      {":u:p:d", "none"},
      {"main::p:d", "none"},
      {"main:u:p:", "none"},
      {"", "none"},
      {nullptr, "none"},
  };
  for (const auto &row : rows) {
    const std::unique_ptr<fr_sql_shard_t, call_to_release<fr_sql_shard_free>> shard(
        fr_sql_shard_parse_info(row.value));
    const std::string parsed = shard ? shard->id + "|" + shard->credentials.user + "|" +
                                           shard->credentials.password + "|" +
                                           shard->credentials.database
                                     : "none";
    EXPECT_EQ(parsed, row.parsed) << (row.value == nullptr ? "NULL" : row.value);
  }
  EXPECT_FALSE(log.has("u:p")) << "a password was logged";
}

TEST_F(SqlPool, ServerLinesGiveEachServerToItsShard) {
  struct {
    const char *text;
    const char *servers;  // of the shard "main"
    int status;
  } const rows[] = {
      {"DB_MASTER main:db:3306\n", "M db:3306;", 0},
      {"  DB_MASTER\t main:fe80::5:3306  # the first\n", "M fe80::5:3306;", 0},
      {"DB_SLAVE main:/run/a:b.sock:0\nDB_MASTER main:h:1", "S /run/a:b.sock;M h:1;", 0},
      {"#DB_MASTER main:db:3306\n", "", -1},
      {"DB_SLAVE main:db:3306\n", "S db:3306;", -1},
      {"DB_MASTERX main:db:3306\nXDB_MASTER main:db:3306\n", "", -1},
      {"DB_MASTER other:db:3306\n", "", 0},
      {"DB_MASTER main:db\nDB_MASTER main:db:0\nDB_MASTER main:db:65536\nDB_MASTER :db:1\n", "",
       -1},
      {"", "", -1},
  };
  for (const char *number : {"[1]", "[2]", "[3]", "[4]"}) {
    log.expect(FR_LOG_ERROR, std::string("Invalid SQL server line ") + number + " in <");
  }
  for (const auto &row : rows) {
    fr_sqlpool_init_api(nullptr, nullptr, 60.0);
    fr_sqlpool_verbosity_set(100);
    ASSERT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:d")), 0);
    EXPECT_EQ(read_servers(row.text), row.status) << row.text;
    EXPECT_EQ(read_servers("", 0), 0);
    std::string servers;
    for (const sql_server &server : the_sql_pool().shards[0]->servers) {
      servers += (server.is_master ? "M " : "S ") + server.address.text() + ";";
    }
    EXPECT_EQ(servers, row.servers) << row.text;
  }
  log.expect(FR_LOG_ERROR, "Failed to open SQL servers file");
  EXPECT_EQ(fr_sql_shard_parse_connection_info("/nonexistent/file", nullptr, 0), -1);
  log.expect(FR_LOG_ERROR, "The SQL shard main is there twice.");
  EXPECT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:d")), -1);
}

TEST_F(SqlPool, ReadsGoToASlaveAndAWriteMovesTheSessionToTheMaster) {
  const mariadb_server master, slave;
  start(line("DB_MASTER", master) + line("DB_SLAVE", slave));
  for (int round = 0; round < 2; round++) {
    const session one = take();
    ASSERT_TRUE(one);
    EXPECT_EQ(server_of(one), slave.socket());
    EXPECT_EQ(ask(one, "DO 0"), "");
    EXPECT_EQ(server_of(one), master.socket());
  }
  EXPECT_EQ(log.count("Connected to SQL"), 2U) << "one connection to each server was enough";
  EXPECT_FALSE(take(1)) << "a shard that is not there";
  EXPECT_FALSE(take(-1));
}

TEST_F(SqlPool, AShardWithOnlyAMasterNeedsOneConnection) {
  support::mariadb_options over_tcp;
  over_tcp.tcp = true;
  const mariadb_server master(over_tcp);
  start("DB_MASTER main:localhost:" + std::to_string(master.port()) + "\n");
  std::set<std::string> ids;
  for (int round = 0; round < 3; round++) {
    const session one = take();
    ASSERT_TRUE(one);
    ids.insert(id_of(one));
    ask(one, "DO 0");
    ids.insert(id_of(one));
    EXPECT_EQ(ask(one, "SELECT @@character_set_client"), "utf8mb4");
    EXPECT_NE(ask(one, "SELECT host FROM information_schema.processlist").find(':'),
              std::string::npos)
        << "localhost was not asked over TCP";
    const int socket = static_cast<int>(mysql_get_socket(fr_sql_conn_get_mysql(one.get())));
    EXPECT_NE(fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(ids.size(), 1U);
}

TEST_F(SqlPool, StartingLeavesTheProcessToEndAtABrokenPipe) {
  start("DB_MASTER main:unused:1\n");
  struct sigaction pipe = {};
  sigaction(SIGPIPE, nullptr, &pipe);
  EXPECT_EQ(pipe.sa_handler, SIG_DFL);
}

TEST_F(SqlPool, ASlaveThatIsDownIsPassedOverForTheDownTime) {
  const mariadb_server master;
  mariadb_server slave;
  start(line("DB_SLAVE", slave) + line("DB_MASTER", master));
  slave.kill_hard();
  for (int round = 0; round < 3; round++) EXPECT_EQ(server_of(take()), master.socket());
  EXPECT_EQ(log.count("Failed to connect to SQL slave"), 1U) << "it was asked in its down time";

  start(line("DB_SLAVE", slave) + line("DB_MASTER", master));
  fr_sqlpool_down_time_set(-1);
  EXPECT_EQ(server_of(take()), master.socket());
  slave.start();
  EXPECT_EQ(server_of(take()), slave.socket()) << "no down time, and it is back";
}

TEST_F(SqlPool, SlavesTakeTurnsAndAConnectionThatIsThereIsUsedFirst) {
  const mariadb_server master, first, second;
  start(line("DB_MASTER", master) + line("DB_SLAVE", first) + line("DB_SLAVE", second));
  for (int round = 0; round < 3; round++) EXPECT_EQ(server_of(take()), first.socket());
  const session one = take(), other = take();
  EXPECT_EQ(server_of(other), second.socket());
  EXPECT_EQ(log.count("Connected to SQL"), 2U);
}

TEST_F(SqlPool, AWriteWithoutAMasterIsAnErrorAndTheSessionGoesOnReading) {
  mariadb_server master;
  const mariadb_server slave;
  start(line("DB_MASTER", master) + line("DB_SLAVE", slave));
  master.kill_hard();
  const session one = take();
  ASSERT_TRUE(one);
  EXPECT_TRUE(failed(ask(one, "DO 0")));
  EXPECT_EQ(server_of(one), slave.socket());
}

TEST_F(SqlPool, AMasterThatRefusesIsAskedEachTimeAndServesWhenItIsBack) {
  mariadb_server master;
  start(line("DB_MASTER", master));
  master.stop();
  EXPECT_FALSE(take());
  EXPECT_FALSE(take());
  master.start();
  EXPECT_TRUE(take());
}

TEST_F(SqlPool, AServerThatHangsCostsThreeSecondsAndIsThenPassedOver) {
  mariadb_server master;
  start(line("DB_MASTER", master));
  master.pause();
  EXPECT_NEAR(seconds_of([] { EXPECT_FALSE(take()); }), 3.0, 0.9);
  EXPECT_LT(seconds_of([] { EXPECT_FALSE(take()); }), 0.5);
  master.resume();
  fr_sqlpool_down_time_set(0);
  for (int i = 0; i < 70 && !take(); i++) std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(take()) << "a hanging master is given up for no more than some seconds";
}

TEST_F(SqlPool, ALostConnectionGivesErrorsAndIsNotHandedOutAgain) {
  mariadb_server master;
  start(line("DB_MASTER", master));
  signal(SIGPIPE, SIG_DFL);  // a statement on a dead connection must not end the process
  session one = take();
  const session other = take();
  const std::string id = id_of(one);
  ASSERT_EQ(ask(other, "KILL " + id), "");
  for (int i = 0; i < 3; i++) EXPECT_TRUE(failed(ask(one, i == 1 ? "DO 0" : "SELECT 1")));
  one.reset();
  const session next = take();
  ASSERT_TRUE(next);
  EXPECT_NE(id_of(next), id);
  EXPECT_EQ(ask(next, "SELECT 1"), "1");

  master.kill_hard();
  EXPECT_TRUE(failed(ask(next, "SELECT 1")));
  EXPECT_TRUE(failed(ask(other, "DO 0")));
  EXPECT_FALSE(take());
}

TEST_F(SqlPool, AStatementErrorLeavesTheConnectionInUse) {
  const mariadb_server master;
  start(line("DB_MASTER", master));
  session one = take();
  const std::string id = id_of(one);
  EXPECT_TRUE(failed(ask(one, "no statement")));
  EXPECT_EQ(id_of(one), id);
  one.reset();
  EXPECT_EQ(id_of(take()), id);
}

TEST_F(SqlPool, AKeptConnectionThatTheServerClosedIsNotHandedOut) {
  mariadb_server master;
  start(line("DB_MASTER", master));
  ASSERT_TRUE(take());
  master.stop();
  master.start();
  EXPECT_EQ(ask(take(), "SELECT 1"), "1");
}

TEST_F(SqlPool, OnlyAConnectionThatIdledLongerThanTheLimitIsAskedFirst) {
  mariadb_server master;
  start(line("DB_MASTER", master), 60.0);
  ASSERT_TRUE(take());
  master.pause();
  EXPECT_LT(seconds_of([] { EXPECT_TRUE(take()); }), 0.5);
  master.resume();

  start(line("DB_MASTER", master), 0.0);
  const std::string id = id_of(take());
  {
    const session again = take();
    EXPECT_EQ(id_of(again), id) << "it answered, and is as good as before";
    const session second = take(), third = take();
    ASSERT_TRUE(second && third);
  }
  master.pause();
  const double spent = seconds_of([] { EXPECT_FALSE(take()); });
  EXPECT_NEAR(spent, 6.0, 1.5) << "one check for all three, and one attempt to connect";
}

TEST_F(SqlPool, AProcedureMayGiveSeveralResultsOfWhichTheFirstIsKept) {
  const mariadb_server master;
  start(line("DB_MASTER", master));
  const session one = take();
  ASSERT_EQ(ask(one, "CREATE DATABASE t"), "");
  ASSERT_EQ(ask(one, "CREATE PROCEDURE t.two() BEGIN SELECT 1; SELECT 2; END"), "");
  ASSERT_EQ(ask(one, "CREATE PROCEDURE t.bad() BEGIN SELECT 1; SELECT * FROM t.none; END"), "");
  EXPECT_EQ(ask(one, "CALL t.two()"), "1");
  EXPECT_TRUE(failed(ask(one, "CALL t.bad()"))) << "a failure after the first result";
  EXPECT_EQ(ask(one, "SELECT 3"), "3");
}

TEST_F(SqlPool, AnOpenTransactionIsNotHandedOn) {
  const mariadb_server master;
  start(line("DB_MASTER", master));
  session one = take();
  const std::string id = id_of(one);
  ASSERT_EQ(ask(one, "START TRANSACTION"), "");
  one.reset();
  EXPECT_NE(id_of(take()), id);
}

TEST_F(SqlPool, ASessionOutlivesThePool) {
  const mariadb_server master;
  start(line("DB_MASTER", master));
  const session one = take();
  session other = take();
  EXPECT_EQ(fr_sqlpool_destroy(), 0);
  EXPECT_FALSE(take());
  const std::string find = "SELECT id FROM information_schema.processlist WHERE id=" + id_of(other);
  EXPECT_FALSE(ask(one, find).empty());
  other.reset();
  for (int i = 0; i < 500 && !ask(one, find).empty(); i++) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(ask(one, find), "") << "a connection was kept for a pool that is gone";
}

TEST_F(SqlPool, ThreadsTakeNoMoreConnectionsThanTheyHoldSessions) {
  constexpr size_t threads = 8;
  const mariadb_server master, slave;
  start(line("DB_MASTER", master) + line("DB_SLAVE", slave));
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> running;
    running.reserve(threads);
    for (size_t thread = 0; thread < threads; thread++) {
      running.emplace_back([&wrong, thread] {
        for (int round = 0; round < 50; round++) {
          const session one = take();
          const std::string sent = std::to_string(thread * 1000) + std::to_string(round);
          if (!one || ask(one, "SELECT '" + sent + "'") != sent) wrong++;
          if (round % 2 == 1 && !ask(one, "DO 0").empty()) wrong++;
        }
      });
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(log.count("Connected to SQL master"), threads);
  EXPECT_LE(log.count("Connected to SQL slave"), threads);
}
