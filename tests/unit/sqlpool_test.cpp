#include "platform/sql/sqlpool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <fstream>
#include <thread>

#include "platform/base/nb_io.h"
#include "platform/sql/connection.h"
#include "platform/sql/pool.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/servers.h"

using namespace std::chrono_literals;
using support::mariadb_server;
using support::seconds_of;

namespace {

using session = std::unique_ptr<fr_sql_conn_t, call_to_release<fr_sqlpool_conn_free>>;

session take(int shard = 0) {
  return session(fr_sqlpool_conn_get(shard));
}

// First column of the first row; "error" when the statement fails, "" when it gives none.
std::string ask(const session &from, const std::string &statement) {
  MYSQL_RES *rows = nullptr;
  if (fr_sql_conn_query(from.get(), 1, &rows, "%s", statement.c_str()) != 0) {
    EXPECT_EQ(rows, nullptr);
    EXPECT_STRNE(mysql_error(fr_sql_conn_get_mysql(from.get())), "") << "no reason was given";
    return "error";
  }
  const sql_result owned(rows);
  const MYSQL_ROW row = rows == nullptr ? nullptr : mysql_fetch_row(rows);
  return row == nullptr || row[0] == nullptr ? "" : row[0];
}

std::string server_of(const session &of) {
  return ask(of, "SELECT @@socket");
}
std::string id_of(const session &of) {
  return ask(of, "SELECT CONNECTION_ID()");
}

std::string line(const char *kind, const mariadb_server &server) {
  return std::string(kind) + " main:" + server.socket() + ":0\n";
}

class SqlPool : public testing::Test {
 protected:
  SqlPool() { fr_sqlpool_verbosity_set(100); }
  ~SqlPool() override { fr_sqlpool_destroy(); }

  int read_servers(const std::string &text, int need_master = 1) const {
    const std::string path = folder.path() / "servers";
    std::ofstream(path) << text;
    return fr_sql_shard_parse_connection_info(path.c_str(), nullptr, need_master);
  }

  void start(const std::string &servers, double idle_limit = 60.0) const {
    ASSERT_EQ(fr_sqlpool_init_api(nullptr, nullptr, idle_limit), 0);
    const std::string credentials =
        std::string("main:") + support::database_user + ":" + support::database_password + ":mysql";
    ASSERT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info(credentials.c_str())), 0);
    ASSERT_EQ(read_servers(servers), 0);
  }

  support::log_capture log;
  support::private_folder folder{"sqlpool"};
};

TEST_F(SqlPool, CredentialsThatLackAPartAreRefusedWithoutThePasswordInTheLog) {
  log.expect(FR_LOG_ERROR, "Invalid SQL credentials");
  for (const char *value : {"main:u:secret", ":u:secret:d", "main::secret:d", "main:u:secret:"}) {
    EXPECT_EQ(fr_sql_shard_parse_info(value), nullptr) << value;
  }
  EXPECT_EQ(fr_sql_shard_parse_info(nullptr), nullptr);
  EXPECT_FALSE(log.has("secret"));
}

TEST_F(SqlPool, APasswordMayHoldColons) {
  for (const std::string password : {"", "p", "a:b:c"}) {
    const std::unique_ptr<fr_sql_shard_t, call_to_release<fr_sql_shard_free>> shard(
        fr_sql_shard_parse_info((" main:u:" + password + ":d\n").c_str()));
    ASSERT_TRUE(shard) << password;
    EXPECT_EQ(shard->id, "main");
    EXPECT_EQ(shard->credentials.user, "u");
    EXPECT_EQ(shard->credentials.password, password);
    EXPECT_EQ(shard->credentials.database, "d");
  }
}

TEST_F(SqlPool, ServerLinesGiveEachServerToItsShard) {
  const struct {
    const char *text;
    const char *asked;  // which server a session looks for; null: none
    int status;
  } rows[] = {{"  DB_MASTER\t main:/no:where.sock:0  # the first\n", "master /no:where.sock of", 0},
              {"DB_SLAVE main:::1:1\nDB_MASTER other:h:1", "slave ::1:1 of shard main: ", 0},
              {"DB_SLAVE main:/none:1\n", "slave /none of shard main: ", -1},
              {"#DB_MASTER main:/none:1\n", nullptr, -1},
              {"DB_MASTERX main:/none:1\nXDB_MASTER main:/none:1\n", nullptr, -1},
              {"DB_MASTER main:db\nDB_MASTER main:db:0\nDB_MASTER main:db:65536\nDB_MASTER :db:1",
               nullptr, -1}};
  log.expect(FR_LOG_ERROR, "Invalid SQL server line [");
  log.expect(FR_LOG_ERROR, "Invalid SQL server line [4] in <");
  for (const auto &row : rows) {
    fr_sqlpool_init_api(nullptr, nullptr, 60.0);
    ASSERT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:d")), 0);
    EXPECT_EQ(read_servers(row.text), row.status) << row.text;
    log.clear();
    EXPECT_FALSE(take()) << row.text;
    EXPECT_EQ(log.lines().empty(), row.asked == nullptr) << row.text;
    if (row.asked != nullptr) {
      EXPECT_TRUE(log.has(row.asked)) << row.text;
    }
  }
}

TEST_F(SqlPool, AFileThatIsNotThereAndAShardThatIsThereTwiceAreErrors) {
  log.expect(FR_LOG_ERROR, "Failed to open SQL servers file");
  EXPECT_EQ(fr_sql_shard_parse_connection_info("/nonexistent/file", nullptr, 0), -1);
  EXPECT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:d")), 0);
  log.expect(FR_LOG_ERROR, "The SQL shard main is there twice.");
  EXPECT_EQ(fr_sqlpool_shard_add(fr_sql_shard_parse_info("main:u:p:d")), -1);
}

TEST_F(SqlPool, ReadsGoToSlavesInTurnAndAWriteMovesTheSessionToTheMaster) {
  mariadb_server master;
  const mariadb_server first, second;
  start(line("DB_MASTER", master) + line("DB_SLAVE", first) + line("DB_SLAVE", second));
  for (int round = 0; round < 2; round++) {
    const session one = take();
    EXPECT_EQ(server_of(one), first.socket()) << "a connection that is there is used first";
    EXPECT_EQ(ask(one, "DO 0"), "");
    EXPECT_EQ(server_of(one), master.socket());
  }
  EXPECT_EQ(log.count("Connected to SQL"), 2U) << "one connection to each server was enough";
  EXPECT_FALSE(take(1)) << "a shard that is not there";
  EXPECT_FALSE(take(-1));

  const session one = take(), other = take();
  EXPECT_EQ(server_of(one), first.socket());
  EXPECT_EQ(server_of(other), second.socket());
  master.kill_hard();
  EXPECT_EQ(ask(take(), "DO 0"), "error");
  EXPECT_EQ(ask(other, "DO 0"), "error");
  EXPECT_EQ(server_of(other), second.socket()) << "it goes on reading";
}

TEST_F(SqlPool, AShardWithOnlyAMasterNeedsOneConnection) {
  const mariadb_server master({.tcp = true});
  start("DB_MASTER main:localhost:" + std::to_string(master.port()) + "\n");
  const session one = take();
  const std::string id = id_of(one);
  EXPECT_EQ(ask(one, "DO 0"), "");
  EXPECT_EQ(id_of(one), id);
  EXPECT_EQ(ask(one, "SELECT @@character_set_client"), "utf8mb4");
  EXPECT_NE(ask(one, "SELECT host FROM information_schema.processlist").find(':'),
            std::string::npos)
      << "localhost was not asked over TCP";
  const int socket = static_cast<int>(mysql_get_socket(fr_sql_conn_get_mysql(one.get())));
  EXPECT_NE(fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SqlPool, StartingLeavesTheProcessToEndAtABrokenPipe) {
  start("DB_MASTER main:unused:1\n");
  EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
}

TEST_F(SqlPool, ASlaveThatIsDownIsSkippedForTheDownTimeButAMasterNever) {
  mariadb_server master, slave;
  start(line("DB_SLAVE", slave) + line("DB_MASTER", master));
  slave.kill_hard();
  for (int round = 0; round < 3; round++) EXPECT_EQ(server_of(take()), master.socket());
  EXPECT_EQ(log.count("Failed to connect to SQL slave"), 1U) << "it was asked in its down time";
  master.stop();
  for (int round = 0; round < 2; round++) EXPECT_FALSE(take());
  master.start();
  EXPECT_TRUE(take());
}

TEST_F(SqlPool, AConnectionIsKeptForTheNextUnlessSomethingIsWrongWithIt) {
  mariadb_server master;
  start(line("DB_MASTER", master));
  signal(SIGPIPE, SIG_DFL);  // a statement on a dead connection must not end the process
  for (const auto &[statement, kept] : {std::pair("no statement", true),
                                        {"START TRANSACTION", false},
                                        {"KILL CONNECTION_ID()", false}}) {
    session one = take();
    const std::string id = id_of(one);
    ask(one, statement);
    one.reset();
    EXPECT_EQ(id_of(take()) == id, kept) << statement;
  }
  master.stop();
  master.start();
  const session one = take();
  EXPECT_EQ(ask(one, "SELECT 1"), "1") << "the server had closed the kept one";
  {
    const session other = take();
    EXPECT_TRUE(support::eventually([&] {
      return ask(one, "SELECT SUM(user='spoolcap') FROM information_schema.processlist") == "2";
    })) << "as many as there are sessions";
  }
  master.kill_hard();
  std::this_thread::sleep_for(20ms);  // the kept one is looked at only when it was not just in use
  EXPECT_FALSE(take()) << "the other one was connected, and nobody answers";
  for (int i = 0; i < 2; i++) EXPECT_EQ(ask(one, "SELECT 1"), "error");
}

TEST_F(SqlPool, OnlyAConnectionThatIdledLongerThanTheLimitIsAskedFirst) {
  mariadb_server master;
  start(line("DB_MASTER", master), 60.0);
  ASSERT_TRUE(take());
  master.pause();
  EXPECT_TRUE(take());
  master.resume();

  start(line("DB_MASTER", master), 0.0);
  const std::string id = id_of(take());
  EXPECT_EQ(id_of(take()), id) << "it answered, and is as good as before";
  {
    const session sessions[] = {take(), take(), take()};
    for (const session &each : sessions) ASSERT_EQ(ask(each, "DO 0"), "");
  }
  master.pause();
  std::filesystem::remove(master.socket());  // connecting fails at once
  EXPECT_LT(seconds_of([] { EXPECT_FALSE(take()); }), 5.9) << "one check for all three";
}

TEST_F(SqlPool, AProcedureMayGiveSeveralResultsOfWhichTheFirstIsKept) {
  const mariadb_server master;
  start(line("DB_MASTER", master));
  const session one = take();
  for (const char *made :
       {"CREATE DATABASE t", "CREATE PROCEDURE t.two() BEGIN SELECT 1; SELECT 2; END",
        "CREATE PROCEDURE t.bad() BEGIN SELECT 1; SELECT * FROM t.none; END"}) {
    ASSERT_EQ(ask(one, made), "");
  }
  EXPECT_EQ(ask(one, "CALL t.two()"), "1");
  EXPECT_EQ(ask(one, "CALL t.bad()"), "error") << "a failure after the first result";
  EXPECT_EQ(ask(one, "SELECT 3"), "3");
}

TEST_F(SqlPool, ASessionOutlivesThePool) {
  const mariadb_server master;
  start(line("DB_MASTER", master));
  const session one = take();
  session other = take();
  const std::string find = "SELECT id FROM information_schema.processlist WHERE id=" + id_of(other);
  EXPECT_EQ(fr_sqlpool_destroy(), 0);
  EXPECT_FALSE(take());
  EXPECT_NE(ask(one, find), "");
  other.reset();
  EXPECT_TRUE(support::eventually([&] { return ask(one, find).empty(); }))
      << "a connection was kept for a pool that is gone";
}

// Sends one byte of its greeting every 100 ms.
void drip(const unique_fd &listener) {
  const unique_fd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const char header[] = {100, 0, 0, 0};
  send(peer.get(), header, sizeof header, MSG_NOSIGNAL);
  for (int i = 0; i < 90 && send(peer.get(), "5", 1, MSG_NOSIGNAL) == 1; i++) {
    std::this_thread::sleep_for(100ms);
  }
}

void expect_three_seconds(const sql_address &address) {
  mysql_handle handle;
  const double spent = seconds_of([&] {
    EXPECT_FALSE(open_connection(handle, {"user", "", ""}, address));
  });
  EXPECT_NEAR(spent, 5, 2.5) << address.text();
  EXPECT_STRNE(mysql_error(handle.get()), "");
}

TEST(SqlConnection, AServerThatDripsItsGreetingOrAcceptsNoConnectionCostsThreeSecondsInAll) {
  int port = 0;
  const support::private_folder folder("sql");
  const std::string path = folder.path() / "dripping", full = folder.path() / "full";
  const unique_fd remote = support::bound_to_loopback(port), local = support::listening_at(path, 0),
                  accepting_none = support::listening_at(full, 0);
  ASSERT_EQ(listen(remote.get(), 0), 0);
  const unique_fd first_in_queue(fr_connect_nb_unix(full.c_str(), 1));
  std::vector<std::jthread> all;
  all.emplace_back(drip, std::cref(remote));
  all.emplace_back(drip, std::cref(local));
  all.emplace_back(expect_three_seconds, sql_address{"127.0.0.1", static_cast<unsigned>(port)});
  all.emplace_back(expect_three_seconds, sql_address{path});
  all.emplace_back(expect_three_seconds, sql_address{full});
}

}  // namespace
