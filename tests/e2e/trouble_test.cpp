// Runs beside servers and disks in trouble: the figures and statuses are those of a quiet day or
// say what is missing, nothing hangs, and the next run heals.
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/sandbox.h"

namespace {

using namespace std::chrono_literals;
using support::seconds_of;
using line = std::vector<std::string>;

const line set_all = {"-A", "set", "-a", "--force"};
const line guides = {"administrator.md"};

void fill(support::sandbox &box, int owners) {
  box.add_reseller(1, "ann");
  box.add_client(2, 1, "bob");
  for (int id = 100; id < 100 + owners; ++id) {
    box.add_owner(id, 2, "user" + std::to_string(id));
    box.add_extension(id, id, std::to_string(id));
    box.add_fax(id, 1000);
  }
}

std::string total(const support::sandbox &box) {
  return box.read_file(box.quota_path("1/fax")).value_or("missing");
}

TEST(CacheTrouble, CostsTimeAtMost) {
  support::redis_server cache;
  support::sandbox box({.cache = &cache, .guides = guides});
  fill(box, 20);
  const support::process_result healthy = box.run_spoolcap(set_all);
  ASSERT_EQ(healthy.status, 0);
  ASSERT_EQ(total(box), "20000.0");

  const auto expect_the_same = [&](const char *what) {
    SCOPED_TRACE(what);
    support::process_result result;
    EXPECT_LT(seconds_of([&] { result = box.run_spoolcap(set_all); }), 10);
    EXPECT_EQ(result.out, healthy.out);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
  };
  cache.pause();
  expect_the_same("a cache that hangs");
  cache.resume();
  cache.kill_hard();
  expect_the_same("a cache that is down");
  std::filesystem::remove(box.path("etc/quorvex/local.conf"));
  expect_the_same("a cache that is not set up");
}

TEST(DatabaseTrouble, AServerKilledInTheMiddleIsHealedByTheNextRun) {
  support::mariadb_server server;
  support::sandbox box({.database = &server, .guides = guides});
  box.sql("SET GLOBAL innodb_flush_log_at_trx_commit = 2");  // what was committed survives the kill
  fill(box, 300);
  ASSERT_EQ(box.run_spoolcap(set_all).status, 0);
  box.write_file(box.quota_path("1/2/100/fax"), "5.0");
  const auto run = box.start_spoolcap(set_all);
  EXPECT_TRUE(
      support::eventually([&] { return box.read_file(box.quota_path("1/2/100/fax")) != "5.0"; }));
  server.kill_hard();
  const auto ended = run->wait(20s);
  ASSERT_TRUE(ended.has_value());
  EXPECT_EQ(ended->signal, 0);
  server.start();
  for (int id = 100; id < 400; ++id) {
    const std::string record =
        box.read_file(box.quota_path("1/2/" + std::to_string(id) + "/fax")).value_or("missing");
    EXPECT_TRUE(record == "1000.0" || record == "0.0") << id << ": " << record;
  }
  EXPECT_EQ(box.run_spoolcap({"-A", "set", "-a", "-q"}).status, 0);
  EXPECT_EQ(total(box), "300000.0");
}

TEST(DatabaseTrouble, AHangingServerCostsTheConnectTimeout) {
  support::mariadb_server server;
  support::sandbox box({.database = &server, .guides = guides});
  server.pause();
  support::process_result result;
  EXPECT_LT(seconds_of([&] { result = box.run_spoolcap({"-A", "show", "-a"}); }), 6);
  EXPECT_EQ(result.out + result.err, "None of the requested users found in database.\n");
  EXPECT_EQ(result.status, 10) << "as without any target";
  server.resume();  // the sandbox takes its database away
}

TEST(DiskTrouble, OneAccountInTheWayLeavesTheOthers) {
  support::sandbox box({.guides = guides});
  fill(box, 2);
  box.write_file("var/lib/quorvexquota/1/2/100", "a file where a directory should be");
  std::filesystem::create_directories(box.quota_path("1/2/101/sound"));
  EXPECT_EQ(box.run_spoolcap(set_all).status, 0);
  EXPECT_EQ(box.read_file(box.quota_path("1/2/101/fax")), "1000.0");
  EXPECT_EQ(total(box), "1000.0");
  std::filesystem::remove(box.path("var/lib/quorvexquota/1/2/100"));
  EXPECT_EQ(box.run_spoolcap({"-A", "set", "-a"}).status, 0);
  EXPECT_EQ(total(box), "2000.0");
}

}  // namespace
