// The set-up of the cache client, seen from its commands, its log and its syslog lines.
#include <spoolcap/zarn_velkan.h>

#include <gtest/gtest.h>
#include <syslog.h>

#include "platform/velkan/velkan.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace {

// A server with a password, reached over a socket whose name holds a colon.
class ZarnVelkan : public testing::Test {
 protected:
  ZarnVelkan() {
    std::filesystem::create_symlink(server.socket(), socket);
    box.redis({"SET", "there", "1"});
  }
  ~ZarnVelkan() override { vk_client_destroy(client); }

  int set_up(const std::string &disdbase, const std::string &pbx = "") {
    vk_client_destroy(client);
    client = nullptr;
    box.write_file("etc/quorvex/disdbase.conf", disdbase);
    box.write_file("etc/quorvex/pbx.conf", pbx);
    return ast_vk_init(&client);
  }

  // Whether the client reads the database of the sandbox; a server that cannot be asked has it all.
  bool reads_the_database() const {
    return vk_exists(client, "there", 5) != 0 && vk_exists(client, "absent", 6) == 0;
  }

  support::log_capture log;
  support::redis_server server{{.password = "secret"}};
  support::sandbox box{{.use_database = false, .cache = &server}};
  const std::string socket = box.path("so:cket");
  const std::string host = "DISDBASE_HOST main:c:d:" + socket + ":0\n";
  const std::string database = std::to_string(box.cache_database());
  vk_client_t *client = nullptr;
};

TEST_F(ZarnVelkan, OnlyServersOfThePartitionMainAreAdded) {
  std::string hosts;
  for (const std::string refused :
       {"other:a:b:10.0.0.6:6400", "main:a:b:10.0.0.7", "main:a:b:host:none"}) {
    hosts += "DISDBASE_HOST " + refused + "\n";
    log.expect(FR_LOG_ERROR,
               "Failed to add vk server [" + refused + "] from /etc/quorvex/disdbase.conf.");
  }
  EXPECT_EQ(set_up(hosts, host + "DISDBASE_CREDENTIALS main:x:secret:" + database), 0);
  EXPECT_TRUE(log.has("Adding vk server [main:c:d:" + socket + ":0] was successfull."));
  EXPECT_TRUE(reads_the_database());
}

TEST_F(ZarnVelkan, TheFirstValidCredentialsOfMainAreUsed) {
  constexpr const char *prefix = "Failed to parse velkan credentials from /etc/quorvex/pbx.conf. ";
  log.expect(FR_LOG_ERROR, std::string(prefix) + "Entry nr: 0.");
  log.expect(FR_LOG_ERROR, std::string(prefix) + "Invalid db number. Entry nr: 1.");
  log.expect(FR_LOG_ERROR, "Skipping velkan credentials for partition other.");
  EXPECT_EQ(set_up(host + "DISDBASE_CREDENTIALS main:x:k\n"
                          "DISDBASE_CREDENTIALS other:x:k:0\n"
                          "DISDBASE_CREDENTIALS other:x:k:4\n",
                   "DISDBASE_CREDENTIALS main:x:secret:" + database +
                       ":more\n"
                       "DISDBASE_CREDENTIALS bad\n"),
            0);
  EXPECT_FALSE(log.has("Entry nr: 4")) << "nothing after the first valid entry is looked at";
  EXPECT_TRUE(reads_the_database());
}

TEST_F(ZarnVelkan, WithoutAServerTheSetUpFailsAndTheClientStaysWithItsCredentials) {
  EXPECT_EQ(set_up("DISDBASE_CREDENTIALS main:x:secret:" + database), -1);
  EXPECT_EQ(add_vk_srv_(client, ("main:a:b:" + socket + ":0").c_str()), 0);
  EXPECT_TRUE(reads_the_database());
}

TEST_F(ZarnVelkan, WithoutTheFileOfThisNodeNothingElseIsRead) {
  std::filesystem::remove(box.path("etc/quorvex/local.conf"));
  log.expect(FR_LOG_ERROR,
             "Failed to open disdbase options configuration file (/etc/quorvex/local.conf).");
  EXPECT_EQ(set_up(host + "DISDBASE_CREDENTIALS main:x:secret:" + database), -1);
  EXPECT_NE(client, nullptr);
  EXPECT_FALSE(log.has("Adding vk server"));
}

// What `work` sends to syslog.
std::string syslog_of(const auto &work) {
  openlog("spoolcap", LOG_PERROR, LOG_USER);  // shows on standard error what is sent
  testing::internal::CaptureStderr();
  work();
  closelog();
  return testing::internal::GetCapturedStderr();
}

TEST_F(ZarnVelkan, LevelWordsAreExactAndJoinedByBars) {
  for (const auto &[text, mask] : {std::pair<std::string, const char *>("ERROR|WARNING", "0x11"),
                                   {"DEBUG|ERROR|DEBUG", "0x3"},
                                   {"EVENT|NOTICE|WARNING", "0x1C"},
                                   {"error|Debug|ERRORS|", nullptr},
                                   {"|ERROR| DEBUG", "0x1"}}) {
    box.write_file("etc/quorvex/local.conf", "VELKAN_DEBUG_PBX " + text + "\n");
    std::string expected = "spoolcap: Parsing syslog loglevel for libvelkan: " + text + "\n";
    if (mask != nullptr) {
      expected.append("spoolcap: Enabling syslog for libvelkan. Loglevel: ").append(mask) += "\n";
    }
    EXPECT_EQ(syslog_of([&] { set_up(""); }), expected);
  }
}

TEST_F(ZarnVelkan, RefusedServersAndTheCallersOwnLinesGoToSyslog) {
  set_up("");
  EXPECT_EQ(add_vk_srv_(client, "main:a:b::1"), VK_ERR_ARGUMENT) << "the library's own status";
  EXPECT_EQ(syslog_of([&] {
              EXPECT_EQ(add_vk_srv_(client, "main:a:b:h"), 1);
              EXPECT_EQ(add_vk_srv_(client, "other:a:b:h:1"), 1);
              log_wrap(LOG_ERR, "%s %d", "wrapped", 7);
            }),
            "spoolcap: Failed to parse disdb host. Entry: main:a:b:h.\n"
            "spoolcap: Skiping velkan server (null) from partition other\n"
            "spoolcap: wrapped 7\n");
}

}  // namespace
