// The transfer service as a process: its command line, its signals, and stores that do not answer.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include "tests/support/transfer_daemon.h"

namespace {

s3_place place_at(int port) {
  return {.endpoint = "http://127.0.0.1:" + std::to_string(port), .region = "x", .bucket = "y"};
}

class TransferProcess : public testing::Test {
 protected:
  TransferProcess() { ::listen(silent_store.get(), 100); }

  bool status_shows(const std::string &text) const {
    return support::eventually(
        [&] { return daemon.run({"--status"}).out.find(text) != std::string::npos; });
  }

  int port = 0;
  // Takes connections and says nothing.
  unique_fd silent_store = support::bound_to_loopback(port);
  support::sandbox box{{.use_database = false}};
  support::transfer_daemon daemon{box, place_at(port)};
};

TEST_F(TransferProcess, AWrongCommandLineOrConfigurationEndsWithTwo) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char *text;
  } rows[] = {{{"--help"}, 0, "--drain [SECONDS]"},
              {{"--version"}, 0, "spoolcap-transfer 0."},
              {{"--sideways"}, 2, "--sideways: unknown option"},
              {{"serve"}, 2, "unexpected argument: serve"},
              {{"--status", "--check"}, 2, "only one"},
              {{"--check", "--json"}, 2, "--json goes with --status"},
              {{"--drain", "soon"}, 2, "not a number of seconds: soon"},
              {{"--status"}, 1, "transfer.sock cannot be reached"},
              {{"--drain", "0"}, 1, "the time is over"}};
  for (const auto &row : rows) {
    const support::process_result result = daemon.run(row.arguments);
    EXPECT_EQ(result.status, row.status) << row.text;
    EXPECT_NE((result.out + result.err).find(row.text), std::string::npos)
        << row.text << "\n"
        << result.out << result.err;
  }
  const struct {
    const char *file, *content, *text;
  } wrong[] = {{"etc/quorvex/transfer.keys", "[us]\n", "no keys for the location eu"},
               {"etc/quorvex/disdbase.conf", "", "no cache server is configured"},
               {"etc/quorvex/storage.conf", "STORAGE_TRASH_EXPIRE -1\n", "from 1 to 8760"},
               {"etc/quorvex/transfer.conf", "TRANSFER_UPLOADS 0\n", "transfer.conf:1: "}};
  for (const auto &row : wrong) {
    box.write_file(row.file, row.content);
    const support::process_result result = daemon.run({});
    EXPECT_EQ(result.status, 2) << row.text;
    EXPECT_NE(result.err.find(row.text), std::string::npos) << result.err;
  }
  if (::geteuid() != 0) return;
  const support::process_result refused = support::run_process({SPOOLCAP_TRANSFER_BINARY});
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.err.find("root must not run the service"), std::string::npos) << refused.err;
}

TEST_F(TransferProcess, NotifiesItsManagerAndReloads) {
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(daemon.told("STATUS=0 uploads and 0 deletes queued"));
  EXPECT_TRUE(daemon.told("WATCHDOG=1"));
  const support::process_result second = daemon.run({});
  EXPECT_EQ(second.status, 1) << "another one listens";

  box.write_file("etc/quorvex/transfer.conf",
                 box.read_file("etc/quorvex/transfer.conf").value() + "TRANSFER_UPLOADS 3\n");
  daemon.process().kill(SIGHUP);
  EXPECT_TRUE(daemon.told("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_TRUE(daemon.told("READY=1"));
  box.write_file("etc/quorvex/transfer.conf", "TRANSFER_SIDEWAYS\n");
  daemon.process().kill(SIGHUP);
  EXPECT_TRUE(daemon.told("READY=1"));
  const support::process_result ended = daemon.stop();
  EXPECT_EQ(ended.status, 0);
  EXPECT_TRUE(daemon.told("STOPPING=1"));
  EXPECT_NE(ended.err.find("TRANSFER_UPLOADS changes with the next restart only"),
            std::string::npos);
  EXPECT_NE(ended.err.find("transfer.conf:1: "), std::string::npos);
}

TEST_F(TransferProcess, EndsInTimeWhileTransfersStall) {
  ASSERT_TRUE(daemon.start());
  for (int i = 0; i < 20; ++i) daemon.commit("vm/1/2/" + std::to_string(i) + ".wav", "hello");
  EXPECT_TRUE(status_shows("upload      eu@n1:vm/1/2/0.wav"));
  EXPECT_EQ(daemon.run({"--drain", "1"}).status, 1);
  // Ten seconds are promised; a transfer that stalls is given up after thirty.
  EXPECT_LT(support::seconds_of([&] { EXPECT_EQ(daemon.stop().status, 0); }), 20);
  EXPECT_EQ(box.redis({"ZCARD", "storage:upqueue:s3:main"}), "20");
}

TEST_F(TransferProcess, ServesWithoutTheDisDbAndSaysSo) {
  support::redis_server server;
  support::sandbox other{{.use_database = false, .cache = &server}};
  support::transfer_daemon alone{other, place_at(1)};
  server.pause();
  ASSERT_TRUE(alone.start());
  EXPECT_TRUE(alone.told("STATUS=the cache server does not answer"));
  EXPECT_NE(alone.run({"--status"}).out.find("not known: the cache server does not answer"),
            std::string::npos);
  const support::process_result check = alone.run({"--check"});
  EXPECT_EQ(check.status, 1);
  EXPECT_NE(check.out.find("WRONG  cache server"), std::string::npos) << check.out;
  EXPECT_NE(check.out.find("WRONG  location eu"), std::string::npos) << check.out;
  EXPECT_EQ(alone.stop().status, 0);
  server.resume();
}

}  // namespace
