// What the users of the testbed lean on: a fault here would leave servers behind, or make other
// tests pass for nothing.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "support/log_capture.h"
#include "support/servers.h"

using namespace std::chrono_literals;
using namespace support;

namespace {

TEST(LogCapture, FailsTheTestForUnannouncedErrorsAndForThoseThatNeverCome) {
  EXPECT_NONFATAL_FAILURE(
      {
        log_capture log;
        log.expect(FR_LOG_ERROR, "known");
        for (const char *text : {"a known error", "a surprise"}) {
          fr_log_impl("here", 1, "f", FR_LOG_MESSAGE, FR_LOG_ERROR, "%s", text);
        }
        log.clear();
      },
      "a surprise");
  EXPECT_NONFATAL_FAILURE({ log_capture().expect(FR_LOG_ERROR, "never"); }, "never");
}

TEST(Process, GivesBackOutputAndStatusAndEndsWhatTakesTooLong) {
  const process_result ended = run_process({"sh", "-c", "echo $WORD; echo bad >&2; exit 3"},
                                           {.environment = {{"WORD", "set"}}});
  EXPECT_EQ(ended.out + ended.err, "set\nbad\n");
  EXPECT_EQ(ended.status, 3);
  EXPECT_EQ(run_process({"sleep", "100"}, {.limit = 50ms}).signal, SIGKILL);
}

// One that has ended but that nobody has asked about yet does not count.
bool alive(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string number, name, state;
  return stat >> number >> name >> state && state != "Z";
}

bool comes_true(const auto &condition) {
  for (int i = 0; i < 2000 && !condition(); ++i) std::this_thread::sleep_for(10ms);
  return condition();
}

TEST(Testbed, TakesEverythingDownWhenItIsToldAndItsServersWhenItIsKilled) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    const private_folder folder("bed");
    const std::string note = folder.path() / "note";
    const char *script =
        "setsid sleep 1000 & echo $! $SPOOLCAP_TEST_FOLDER > $NOTE.tmp; mv $NOTE.tmp $NOTE; wait";
    // In a folder of its own, not in that of the testbed around it.
    background_process testbed({SPOOLCAP_TESTBED, "sh", "-c", script},
                               {.environment = {{folder_variable, folder.path()}, {"NOTE", note}}});
    ASSERT_TRUE(comes_true([&] { return std::filesystem::exists(note); }));
    pid_t left = 0;  // what the command started and does not end
    std::string home;
    std::ifstream(note) >> left >> home;
    const std::string id = std::to_string(testbed.pid());
    std::ifstream children(std::filesystem::path("/proc") / id / "task" / id / "children");
    const std::vector<pid_t> pids(std::istream_iterator<pid_t>(children), {});
    ASSERT_EQ(pids.size(), 3U) << "both servers and the command";

    testbed.kill(signal);
    const auto result = testbed.wait(20s);
    ASSERT_TRUE(result);
    EXPECT_TRUE(comes_true([&] { return std::none_of(pids.begin(), pids.end(), alive); }));
    if (signal == SIGKILL) {
      kill(left, SIGKILL);  // what set itself apart is beyond the reach of a dead testbed
    } else {
      EXPECT_EQ(result->status, 128 + signal) << result->err;
      EXPECT_FALSE(alive(left) || std::filesystem::exists(home));
    }
  }
}

}  // namespace
