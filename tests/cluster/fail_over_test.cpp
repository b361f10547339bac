// A cache of master, replica and Sentinel whose master is killed in the middle of work.
#include <spoolcap/quota.h>
#include <spoolcap/sqlsession.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "tests/cluster/figures.h"
#include "tests/support/log_capture.h"
#include "tests/unit/storage_fixture.h"
#include "tests/unit/velkan_fixture.h"

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using support::redis_server;
using support::seconds_of;

namespace {

constexpr int updated_user = 100, limit = 20 * 1024, delta = 512;
constexpr const char *media = "rc/1/2/";

class FailOver : public testing::Test {
 protected:
  FailOver() {
    fill(box);
    box.set_preference(updated_user, "fax_storage", "20");
    std::string hosts;
    for (const redis_server *server : {&master, &replica}) {
      EXPECT_EQ(client.add("127.0.0.1", server->port()), VK_OK);
      hosts += "DISDBASE_HOST main:a:b:127.0.0.1:" + std::to_string(server->port()) + "\n";
    }
    box.write_file("etc/quorvex/disdbase.conf", hosts);
    box.write_file("etc/quorvex/storage.conf", "STORAGE_SYSTEM s3\n");
    box.sql(
        "INSERT INTO extension_recording(id, extension_id) SELECT seq, 1 FROM "
        "seq_10000_to_20000");
    qx_sql_pool_init();
    EXPECT_EQ(qx_storage_initialize(box.path("base").c_str(), nullptr), 0);
    start_sentinel();
  }
  ~FailOver() override {
    qx_storage_cleanup();
    qx_sql_pool_destroy();
  }

  void start_sentinel() {
    int port = 0;
    support::bound_to_loopback(port);
    std::ofstream(folder.path() / "conf")
        << "port " << port << "\nbind 127.0.0.1\nsentinel monitor main 127.0.0.1 " << master.port()
        << " 1\nsentinel down-after-milliseconds main 1000\n";
    sentinel = std::make_unique<support::background_process>(
        std::vector<std::string>{"redis-server", folder.path() / "conf", "--sentinel"},
        support::process_options{.environment = {{"LD_PRELOAD", std::nullopt}},
                                 .log = folder.path() / "log"});
    // It knows the replica before anything happens to the master.
    EXPECT_TRUE(support::eventually([&] {
      return log_of_sentinel().find("+slave slave") != std::string::npos;
    })) << log_of_sentinel();
  }
  std::string log_of_sentinel() const {
    std::ifstream file(folder.path() / "log");
    return {std::istreambuf_iterator<char>(file), {}};
  }
  bool is_promoted() const {
    return ask(replica, {"INFO", "replication"}).find("role:master") != std::string::npos;
  }
  // Stores a recording by its number; whether the caller was told that it is stored.
  static bool commit(int id) {
    const storage_session made(qx_storage_session_create(QX_STORAGE_RECORDING, 1, 2, "wav"));
    if (!made) return false;
    std::ofstream(qx_storage_get_temp_file(made.get())) << id;
    return qx_storage_commit_file(made.get(), id) == 0;
  }
  std::string file_of(int id) const {
    return box.path(scache + media + std::to_string(id) + ".wav");
  }
  bool is_queued_at_replica(int id) const {
    const vk_context own(redisConnectUnix(replica.socket().c_str()));
    own_reply(redisCommand(own.get(), "SELECT %d", box.cache_database()));
    const vk_reply reply = own_reply(
        redisCommand(own.get(), "ZSCORE storage:upqueue:s3:main %s",
                     ("eu:bucket:" + std::string(media) + std::to_string(id) + ".wav").c_str()));
    return reply && reply->type == REDIS_REPLY_STRING;
  }

  redis_server master{{.tcp = true}};
  redis_server replica{
      {.tcp = true, .arguments = {"--replicaof", "127.0.0.1", std::to_string(master.port())}}};
  support::private_folder folder{"sentinel"};
  support::sandbox box{{.cache = &master}};
  support::log_capture log;
  support::transfer_service service{box};
  const cache_client client{std::initializer_list<std::string>()};
  std::unique_ptr<support::background_process> sentinel;
};

// Runs of the command, one after the other, until it is told to stop.
struct runs {
  double longest = 0;
  void go_on(const support::sandbox &box, const std::atomic<bool> &stop, const std::string &shown) {
    while (!stop) {
      longest = std::max(
          longest, seconds_of([&] {
            EXPECT_EQ(
                box.run_spoolcap({"--action", "set", "--uid", "2", "--force", "--quiet"}).status,
                0);
          }));
      longest = std::max(
          longest, seconds_of([&] {
            EXPECT_EQ(box.run_spoolcap({"--action", "show", "--uid", "2,11,101"}).out, shown);
          }));
    }
  }
};

TEST_F(FailOver, TheNewMasterIsFoundWithinTwoSecondsAndNothingIsWrong) {
  set_all(box);
  const figures before = figures_of(box);
  const std::string shown = box.run_spoolcap({"--action", "show", "--uid", "2,11,101"}).out;
  std::atomic<bool> calm_is_over = false, stop = false;
  runs calm, troubled;
  {
    const std::jthread other([&] { calm.go_on(box, calm_is_over, shown); });
    std::this_thread::sleep_for(3s);
    calm_is_over = true;
  }
  log.expect(FR_LOG_ERROR, " + quota_verify(target:0");
  int updates = 0, committed = 10'000, lost = 0;
  std::vector<int> stored;
  double gap = -1;
  {
    const std::jthread commands([&] { troubled.go_on(box, stop, shown); });
    const std::jthread commits([&] {
      for (; !stop; ++committed, std::this_thread::sleep_for(5ms)) {
        if (commit(committed)) stored.push_back(committed);
      }
    });
    const std::jthread component([&] {
      for (; !stop; std::this_thread::sleep_for(20ms)) {
        EXPECT_EQ(quota_update(updated_user, QUOTA_FAX, delta, -1), 0);
        ++updates;
        EXPECT_EQ(quota_verify(updated_user, QUOTA_FAX) != 0, updates * delta >= limit) << updates;
      }
    });
    std::this_thread::sleep_for(1s);
    master.kill_hard();
    std::optional<clock_type::time_point> promoted;
    for (const auto end = clock_type::now() + 30s; gap < 0 && clock_type::now() < end;) {
      if (!promoted && is_promoted()) promoted = clock_type::now();
      if (client.set("h", "f", "v") == VK_OK && promoted) {
        gap = std::chrono::duration<double>(clock_type::now() - *promoted).count();
      }
      std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(3s);
    stop = true;
  }
  EXPECT_GE(gap, 0) << log_of_sentinel();
  EXPECT_LT(gap, 2);
  EXPECT_LT(troubled.longest, calm.longest + 5);
  figures expected = before;
  for (const char *place : {"1/fax", "1/10/fax", "1/10/100/fax"}) {
    expected[place] += updates * delta;
  }
  EXPECT_EQ(figures_of(box), expected);
  EXPECT_GE(updates * delta, limit) << "too few to fill it";
  ASSERT_FALSE(stored.empty());
  EXPECT_TRUE(is_queued_at_replica(stored.back())) << "it was stored after the fail-over";
  for (const int id : stored) {
    EXPECT_TRUE(std::filesystem::exists(file_of(id))) << id;
    lost += is_queued_at_replica(id) ? 0 : 1;
  }
  std::printf("found after %.2f s; longest run %.2f s, %.2f s before; %zu files, %d not queued\n",
              gap, troubled.longest, calm.longest, stored.size(), lost);
}

// The copy in the cache is what the transfer service queues again when it looks through the cache:
// Keeper.WhatTheQueueLostIsQueuedAgainAndWhatWasDeletedIsNot shows it beside a store.
TEST_F(FailOver, AQueueEntryThatTheReplicaDidNotGetVanishesAndItsFileStays) {
  ASSERT_TRUE(commit(10'001));
  ASSERT_TRUE(support::eventually([&] { return is_queued_at_replica(10'001); }));
  replica.pause();
  box.redis({"SET", "more", std::string(32 << 20, 'x')});  // than sockets hold for it
  ASSERT_TRUE(commit(10'002));
  master.kill_hard();
  replica.resume();
  ASSERT_TRUE(support::eventually([&] { return is_promoted(); })) << log_of_sentinel();
  EXPECT_TRUE(is_queued_at_replica(10'001));
  EXPECT_FALSE(is_queued_at_replica(10'002));
  EXPECT_TRUE(std::filesystem::exists(file_of(10'002)));
  EXPECT_EQ(box.sql_value("SELECT se FROM extension_recording WHERE id=10002"), "s3");
}

}  // namespace
