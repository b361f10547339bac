// A primary and two replicas, which are stopped, restarted and late while figures are made.
#include <spoolcap/quota.h>
#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_user.h>

#include <atomic>
#include <thread>

#include "main/sql/query.h"
#include "tests/cluster/figures.h"
#include "tests/support/log_capture.h"

using namespace std::chrono_literals;
using support::mariadb_server;

namespace {

std::string ask(const mariadb_server &server, const std::string &statement, unsigned column = 0) {
  const mysql_handle own(mysql_init(nullptr));
  if (mysql_real_connect(own.get(), nullptr, support::database_user, support::database_password,
                         nullptr, 0, server.socket().c_str(), CLIENT_MULTI_STATEMENTS) == nullptr ||
      mysql_query(own.get(), statement.c_str()) != 0) {
    throw std::runtime_error(statement + ": " + mysql_error(own.get()));
  }
  std::string value;
  do {
    const sql_result rows(mysql_store_result(own.get()));
    const MYSQL_ROW row = rows ? mysql_fetch_row(rows.get()) : nullptr;
    if (row != nullptr && row[column] != nullptr) value = row[column];
  } while (mysql_next_result(own.get()) == 0);
  return value;
}

class Replicas : public testing::Test {
 protected:
  Replicas() {
    for (const mariadb_server &replica : replicas) follow(replica, 0);
    fill(box);
    catch_up();
    configure("");
  }
  ~Replicas() override { qx_sql_pool_destroy(); }

  static support::server_options numbered(int number) {
    return {.tcp = true,
            .arguments = {"--server-id=" + std::to_string(number), "--log-bin=binlog",
                          "--gtid-strict-mode=1"}};
  }
  // Begins to follow the primary, `delay` seconds behind it.
  void follow(const mariadb_server &replica, int delay) const {
    ask(replica, "STOP SLAVE; CHANGE MASTER TO MASTER_HOST='127.0.0.1', MASTER_PORT=" +
                     std::to_string(primary.port()) + ", MASTER_USER='" + support::database_user +
                     "', MASTER_PASSWORD='" + support::database_password +
                     "', MASTER_USE_GTID=slave_pos, MASTER_DELAY=" + std::to_string(delay) +
                     "; START SLAVE");
  }
  void catch_up() const {
    const std::string position = ask(primary, "SELECT @@gtid_binlog_pos");
    for (const mariadb_server &replica : replicas) {
      ASSERT_EQ(ask(replica, "SELECT MASTER_GTID_WAIT('" + position + "', 60)"), "0");
    }
  }
  void configure(const std::string &more) {
    std::string servers = "DB_MASTER main:" + primary.socket() + ":0\n" + more;
    for (const mariadb_server &replica : replicas) {
      servers += "DB_SLAVE main:" + replica.socket() + ":0\n";
    }
    box.write_file("etc/quorvex/sqldbase.conf", servers);
    qx_sql_pool_init();
  }
  // One refresh of all accounts. Returns how many times a replica died in it.
  int run_while_replicas_die() {
    int deaths = 0;
    const auto run = box.start_spoolcap({"--action", "set", "--all", "--force", "--quiet"});
    for (; run->running(); ++deaths) {
      mariadb_server &replica = replicas[deaths % 2];
      replica.kill_hard();
      std::this_thread::sleep_for(50ms);
      replica.start();
    }
    EXPECT_EQ(run->wait(60s)->status, 0);
    return deaths;
  }
  static int selects(const mariadb_server &server) {
    return std::stoi(ask(server, "SHOW GLOBAL STATUS LIKE 'Com_select'", 1));
  }
  static std::string server_read_from() {
    return sql_text(QX_HERE, nullptr, "SELECT @@server_id").get();
  }

  support::log_capture log;
  mariadb_server primary{numbered(1)};
  mariadb_server replicas[2] = {mariadb_server(numbered(2)), mariadb_server(numbered(3))};
  support::sandbox box{{.use_cache = false, .database = &primary}};
};

TEST_F(Replicas, ARunReadsFromReplicasThatAreUpAndAWriteGoesToThePrimary) {
  const auto refresh = [this](const mariadb_server &reader) {
    const int before = selects(reader), of_primary = selects(primary);
    set_all(box);
    EXPECT_GT(selects(reader), before + accounts);
    EXPECT_LE(selects(primary), of_primary + 1) << "this question is one";
    return figures_of(box);
  };
  const figures expected = refresh(replicas[0]);
  EXPECT_EQ(expected.at("1/recording"), recordings_of_a_reseller);
  replicas[0].stop();
  EXPECT_EQ(refresh(replicas[1]), expected);
  replicas[0].start();

  ask(replicas[0], "STOP SLAVE");
  ask(replicas[1], "STOP SLAVE");
  const sql_session session;
  sql_text(QX_HERE, session.get(), "UPDATE client SET name='new' WHERE id=1");
  EXPECT_STREQ(sql_text(QX_HERE, session.get(), "SELECT name FROM client WHERE id=1").get(), "new");
  EXPECT_EQ(box.sql_value("SELECT name FROM client WHERE id=1"), "new");
}

TEST_F(Replicas, ReplicasThatDieAndComeBackLeaveNoWrongFigure) {
  set_all(box);
  const figures expected = figures_of(box);
  for (int round = 0; round < 3; ++round) {
    run_while_replicas_die();
    for (const auto &[file, figure] : certain_figures_of(box)) {
      EXPECT_EQ(figure, expected.at(file)) << file;
    }
    set_all(box, {});
    EXPECT_EQ(figures_of(box), expected) << "the run after it makes all good";
  }
}

TEST_F(Replicas, AReplicaThatDiesFailsOneCallAtMost) {
  set_all(box);
  std::atomic<bool> stop = false;
  int failures = 0, wrong = 0, calls = 0;
  std::jthread caller([&] {
    for (; !stop; ++calls) {
      int64_t value = 0;
      const int id = first_user + calls % 100;
      if (calls % 2 == 0 ? quota_read_sql(id, QUOTA_RECORDING, &value, nullptr) != 0
                         : (value = qx_account_get_level(id)) < 0) {
        ++failures;
      } else if (value != (calls % 2 == 0 ? recording_size : 100)) {
        ++wrong;
      }
    }
  });
  const int deaths = run_while_replicas_die();
  stop = true;
  caller.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(failures, deaths);
  EXPECT_GT(calls, 100);
}

TEST_F(Replicas, AReplicaThatLagsGivesOldFiguresUnlessALargestLagIsSet) {
  set_all(box);
  const figures old = figures_of(box);
  for (const mariadb_server &replica : replicas) follow(replica, 300);
  box.sql("UPDATE extension_recording SET filesize = 2 * filesize");
  std::this_thread::sleep_for(3s);  // as long as it takes to be behind
  set_all(box);
  EXPECT_EQ(figures_of(box), old);

  configure("SLAVE_MAX_LAG 1\n");
  EXPECT_EQ(server_read_from(), "1");
  EXPECT_EQ(log.count("is passed over: it lags"), 2U);
  set_all(box);
  EXPECT_EQ(figures_of(box).at("1/recording"), 2 * recordings_of_a_reseller);
  ask(replicas[0], "STOP SLAVE");
  EXPECT_EQ(server_read_from(), "1");
  configure("SLAVE_MAX_LAG 3600\n");
  EXPECT_NE(server_read_from(), "2") << "its replication was never seen to run";

  configure("SLAVE_MAX_LAG 1\n");
  EXPECT_EQ(server_read_from(), "1");
  follow(replicas[0], 0);
  EXPECT_TRUE(support::eventually([&] { return server_read_from() == "2"; }));
  EXPECT_EQ(log.count("serves again"), 1U);
  const sql_session held;
  const call_site here = QX_HERE;
  const auto id_of_server = [&] {
    return std::string(sql_text(here, held.get(), "SELECT @@server_id").get());
  };
  EXPECT_EQ(id_of_server(), "2");
  ask(replicas[0], "STOP SLAVE");
  EXPECT_TRUE(support::eventually([&] { return id_of_server() == "1"; })) << "held, but looked at";
  follow(replicas[0], 0);
  set_all(box);
  EXPECT_EQ(figures_of(box).at("1/recording"), 2 * recordings_of_a_reseller);
}

TEST_F(Replicas, AMissingRightToAskIsLoggedOnceAndReplicasStillServe) {
  box.sql("CREATE USER 'reader'@'%' IDENTIFIED BY 'secret'; GRANT SELECT ON *.* TO 'reader'@'%'");
  catch_up();
  box.write_file("etc/quorvex/pbx.conf", "DB_CREDENTIALS main:reader:secret:" + box.database());
  std::filesystem::permissions(box.path("etc/quorvex/pbx.conf"), std::filesystem::perms(0640));
  configure("SLAVE_MAX_LAG 60\n");
  for (int i = 0; i < 2; ++i, std::this_thread::sleep_for(2s)) EXPECT_EQ(server_read_from(), "2");
  EXPECT_EQ(log.count("tells no lag and serves all the same: Access denied"), 1U);
  box.sql("GRANT SLAVE MONITOR ON *.* TO 'reader'@'%'");
  catch_up();
  configure("SLAVE_MAX_LAG 60\n");
  EXPECT_EQ(server_read_from(), "2");
  EXPECT_EQ(log.count("tells no lag"), 1U);
}

}  // namespace
