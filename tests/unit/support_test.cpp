// What the other tests lean on: a fault here would make them pass, or fail, for nothing.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "support/log_capture.h"
#include "support/sandbox.h"

using namespace std::chrono_literals;
using namespace support;

namespace {

void log_error(const char *text) {
  fr_log_impl("here", 1, "log_error", FR_LOG_MESSAGE, FR_LOG_ERROR, "%s\n", text);
}

// One that has ended but that nobody has asked about yet does not count.
bool alive(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string number, name, state;
  return stat >> number >> name >> state && state != "Z";
}

bool comes_true(const auto &condition) {
  for (const auto deadline = std::chrono::steady_clock::now() + 20s;
       std::chrono::steady_clock::now() < deadline;) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

}  // namespace

TEST(LogCapture, AnErrorThatWasNotAnnouncedFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(
      {
        log_capture log;
        log.expect(FR_LOG_ERROR, "known");
        log_error("a known error");
        log_error("a surprise");
      },
      "a surprise");
}

TEST(LogCapture, AnAnnouncedErrorThatNeverComesFailsTheTest) {
  EXPECT_NONFATAL_FAILURE({ log_capture().expect(FR_LOG_ERROR, "never"); }, "never");
}

TEST(Process, GivesBackOutputAndStatusAndEndsWhatTakesTooLong) {
  process_options options;
  options.input = "typed";
  options.environment = {{"WORD", "set"}};
  const process_result ended =
      run_process({"sh", "-c", "cat; echo $WORD; echo bad >&2; exit 3"}, options);
  EXPECT_EQ(ended.out, "typedset\n");
  EXPECT_EQ(ended.err, "bad\n");
  EXPECT_EQ(ended.status, 3);

  options.limit = 50ms;
  const process_result late = run_process({"sleep", "100"}, options);
  EXPECT_TRUE(late.timed_out);
  EXPECT_EQ(late.signal, SIGKILL);
}

TEST(Sandbox, KeepsItsRowsKeysAndFilesToItself) {
  sandbox one;
  sandbox other;
  one.add_reseller(3, "o'neill");
  one.add_client(4, 3, "cleo");
  one.add_owner(12, 4, "ann");
  one.add_extension(7, 12, "101");
  one.add_recording(7, 100);
  one.redis({"HSET", "hash", "field", "value"});
  one.write_file("etc/quorvex/local.conf", "VELKAN_DEBUG_PBX ERROR\n");

  EXPECT_EQ(one.sql_value("SELECT username FROM hs_account WHERE userID = 3"), "o'neill");
  EXPECT_EQ(one.sql_value("SELECT extended_number FROM extension"), "0004*101");
  EXPECT_EQ(one.redis({"HGET", "hash", "field"}), "value");
  EXPECT_EQ(other.sql_value("SELECT COUNT(*) FROM client"), "0");
  EXPECT_EQ(other.redis({"HGET", "hash", "field"}), std::nullopt);
  EXPECT_EQ(other.read_file("etc/quorvex/local.conf"), "");
}

TEST(Sandbox, LeavesNothingBehind) {
  std::filesystem::path root;
  std::string database;
  {
    const sandbox gone;
    root = gone.root();
    database = gone.database();
    // Deeper than there are descriptors, and than a path may be long.
    const std::string name(200, 'd');
    unique_fd folder(open(root.c_str(), O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < 1500; ++i) {
      ASSERT_EQ(mkdirat(folder.get(), name.c_str(), 0700), 0);
      folder = unique_fd(openat(folder.get(), name.c_str(), O_DIRECTORY | O_CLOEXEC));
    }
  }
  const sandbox next;
  EXPECT_FALSE(std::filesystem::exists(root));
  EXPECT_TRUE(next.sql("SHOW DATABASES LIKE '" + database + "'").empty());
}

TEST(Environment, HasTheUserThatFilesAreGivenTo) {
  const passwd *user = getpwnam("asterisk");
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->pw_uid, 5060U);
  EXPECT_EQ(user->pw_gid, 5061U);
}

TEST(MariaDbServer, CrashesHangsAndComesBackWithItsData) {
  mariadb_options own;
  own.tcp = true;
  mariadb_server server(own);
  EXPECT_GT(server.port(), 0);
  sandbox_options options;
  options.database = &server;
  options.use_cache = false;
  {
    const sandbox box(options);
    const std::string &database = box.database();
    const auto tables = [&] {
      process_options limit;
      limit.limit = 1s;
      return run_process(
          {"mariadb", "--no-defaults", "-h127.0.0.1", "-P" + std::to_string(server.port()),
           "-uspoolcap", "-psecret", "-N", "-e", "SHOW TABLES", database},
          limit);
    };
    ASSERT_EQ(tables().status, 0) << tables().err;
    server.pause();
    EXPECT_TRUE(tables().timed_out);
    server.resume();
    EXPECT_EQ(tables().status, 0);
    server.kill_hard();
    EXPECT_NE(tables().status, 0);
    server.start();
    EXPECT_NE(tables().out.find("hs_account"), std::string::npos) << tables().err;
  }
  const pid_t pid = server.pid();
  server.stop();
  EXPECT_FALSE(alive(pid));
}

TEST(RedisServer, FollowsAMasterAndAsksForItsPassword) {
  redis_options as_master;
  as_master.tcp = true;
  as_master.password = "key";
  redis_server master(as_master);
  redis_options as_replica;
  as_replica.master_host = "127.0.0.1";
  as_replica.master_port = master.port();
  as_replica.master_password = "key";
  redis_server replica(as_replica);

  sandbox_options options;
  options.use_database = false;
  options.cache = &master;
  const sandbox box(options);
  box.redis({"SET", "name", "value"});
  const auto read = [&] {
    return run_process({"redis-cli", "-s", replica.socket(), "-n",
                        std::to_string(box.cache_database()), "GET", "name"})
        .out;
  };
  EXPECT_TRUE(comes_true([&] { return read() == "value\n"; })) << replica.log();
  EXPECT_NE(run_process({"redis-cli", "-s", master.socket(), "PING"}).out, "PONG\n");
}

namespace {

// A testbed in the middle of its command.
struct running_testbed {
  private_folder folder{"bed"};
  std::unique_ptr<background_process> testbed;
  std::string home;         // its folder
  std::vector<pid_t> pids;  // its children: both servers and the command
  pid_t left = 0;           // a program that the command started and does not end

  running_testbed() {
    const std::string note = (folder.path() / "note").string();
    process_options options;
    options.environment = {{"NOTE", note}};
    options.without = {folder_variable, mariadb_variable, redis_variable, template_variable};
    const std::string script =
        "setsid sleep 1000 & echo $! $SPOOLCAP_TEST_FOLDER > $NOTE.tmp; mv $NOTE.tmp $NOTE; wait";
    testbed = std::make_unique<background_process>(
        std::vector<std::string>{SPOOLCAP_TESTBED, "sh", "-c", script}, options);
    if (!comes_true([&] { return std::filesystem::exists(note); })) {
      throw std::runtime_error("the testbed does not start: " + testbed->err());
    }
    std::ifstream(note) >> left >> home;
    const std::string id = std::to_string(testbed->pid());
    std::ifstream children("/proc/" + id + "/task/" + id + "/children");
    for (pid_t pid = 0; children >> pid;) pids.push_back(pid);
  }
  bool all_gone() const {
    return std::none_of(pids.begin(), pids.end(), [](pid_t pid) { return alive(pid); });
  }
};

}  // namespace

TEST(Testbed, TakesEverythingDownWhenItIsTold) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(strsignal(signal));
    running_testbed bed;
    ASSERT_EQ(bed.pids.size(), 3U);
    bed.testbed->kill(signal);
    const auto result = bed.testbed->wait(20s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 128 + signal) << result->err;
    EXPECT_TRUE(bed.all_gone());
    EXPECT_FALSE(alive(bed.left));
    EXPECT_FALSE(std::filesystem::exists(bed.home));
  }
}

TEST(Testbed, LeavesNoServersWhenItIsKilled) {
  running_testbed bed;
  ASSERT_EQ(bed.pids.size(), 3U);
  bed.testbed->kill(SIGKILL);
  EXPECT_TRUE(comes_true([&] { return bed.all_gone(); }));
  kill(bed.left, SIGKILL);  // what set itself apart is beyond the reach of a dead testbed
  std::filesystem::remove_all(bed.home);
}
