#include <spoolcap/zarn_velkan.h>

#include <gtest/gtest.h>
#include <syslog.h>

#include "platform/velkan/group.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace {

class ZarnVelkan : public testing::Test {
 protected:
  ~ZarnVelkan() override { vk_client_destroy(client); }

  int set_up(const std::string &disdbase, const std::string &pbx = "") {
    vk_client_destroy(client);
    client = nullptr;
    box.write_file("etc/quorvex/disdbase.conf", disdbase);
    box.write_file("etc/quorvex/pbx.conf", pbx);
    return ast_vk_init(&client);
  }

  // "name=host:port" of each server.
  std::string servers() const {
    std::string all;
    for (const vk_server &server : client->state->servers) {
      all += server.name + "=" + server.host + ":" + std::to_string(server.port) + " ";
    }
    return all;
  }

  support::log_capture log;
  support::sandbox box;
  vk_client_t *client = nullptr;
};

}  // namespace

TEST_F(ZarnVelkan, ServersOfThePartitionMainAreAddedInOrderOverBothFiles) {
  std::string disdbase = "DISDBASE_HOST main:a:b:10.0.0.5:6400\nDISDBASE_CREDENTIALS main:x::3\n";
  for (const std::string refused :
       {"other:a:b:10.0.0.6:6400", "main:a:b:10.0.0.7", "main:a:b:host:none"}) {
    disdbase += "DISDBASE_HOST " + refused + "\n";
    log.expect(FR_LOG_ERROR,
               "Failed to add vk server [" + refused + "] from /etc/quorvex/disdbase.conf.");
  }
  EXPECT_EQ(set_up(disdbase, "DISDBASE_HOST main:c:d:fe80::5:6401\n"), 0);
  EXPECT_EQ(servers(), "a:b=10.0.0.5:6400 c:d=fe80::5:6401 ");
  EXPECT_TRUE(log.has("Adding vk server [main:c:d:fe80::5:6401] was successfull."));
  EXPECT_EQ(client->state->database, 3);
  EXPECT_TRUE(client->state->keys.empty());
}

TEST_F(ZarnVelkan, TheFirstValidCredentialsOfMainAreUsed) {
  constexpr const char *prefix = "Failed to parse velkan credentials from /etc/quorvex/pbx.conf. ";
  log.expect(FR_LOG_ERROR, std::string(prefix) + "Entry nr: 0.");
  log.expect(FR_LOG_ERROR, std::string(prefix) + "Invalid db number. Entry nr: 1.");
  log.expect(FR_LOG_ERROR, "Skipping velkan credentials for partition other.");
  EXPECT_EQ(set_up("DISDBASE_HOST main:a:b:h:1\n"
                   "DISDBASE_CREDENTIALS main:x:k\n"
                   "DISDBASE_CREDENTIALS other:x:k:0\n"
                   "DISDBASE_CREDENTIALS other:x:k:4\n",
                   "DISDBASE_CREDENTIALS main:x:secret:5:more\n"
                   "DISDBASE_CREDENTIALS bad\n"),
            0);
  EXPECT_FALSE(log.has("Entry nr: 4")) << "nothing after the first valid entry is looked at";
  EXPECT_EQ(client->state->keys, (std::map<int, std::string>{{5, "secret"}}));
}

TEST_F(ZarnVelkan, WithoutAServerOrCredentialsOfMainTheSetUpFailsAndTheClientStays) {
  EXPECT_EQ(set_up("DISDBASE_CREDENTIALS main:x:k:2\n"), -1);
  EXPECT_EQ(client->state->database, 2) << "the credentials were applied all the same";
  std::filesystem::remove(box.path("etc/quorvex/local.conf"));
  log.expect(FR_LOG_ERROR,
             "Failed to open disdbase options configuration file (/etc/quorvex/local.conf).");
  EXPECT_EQ(set_up("DISDBASE_HOST main:a:b:h:1\n"), -1);
  EXPECT_EQ(servers(), "") << "nothing else is read then";
}

TEST_F(ZarnVelkan, LevelWordsAreExactAndJoinedByBars) {
  box.write_file("etc/quorvex/local.conf", "VELKAN_DEBUG_PBX ERROR|WARNING\n");
  set_up("");
  EXPECT_EQ(client->state->log_mask, 0x11U);
  for (const auto &[text, mask] : {std::pair("DEBUG|ERROR|DEBUG", 0x03U),
                                   {"EVENT|NOTICE|WARNING", 0x1cU},
                                   {"error|Debug|ERRORS|", 0U},
                                   {"|ERROR| DEBUG", 0x01U}}) {
    vk_enable_syslog(client, 0);
    EXPECT_EQ(add_vk_syslog_(client, text), 0) << text;
    EXPECT_EQ(client->state->log_mask, mask) << text;
  }
}

TEST_F(ZarnVelkan, WhatTheHandlersGiveAndWriteToSyslogDirectly) {
  set_up("");
  openlog("spoolcap", LOG_PERROR, LOG_USER);  // shows on standard error what is sent
  testing::internal::CaptureStderr();
  EXPECT_EQ(add_vk_srv_(client, "main:a:b:h"), 1);
  EXPECT_EQ(add_vk_srv_(client, "other:a:b:h:1"), 1);
  EXPECT_EQ(add_vk_srv_(client, "main:a:b::1"), VK_ERR_ARGUMENT) << "the library's own status";
  add_vk_syslog_(client, "ERROR|WARNING");
  log_wrap(LOG_ERR, "%s %d", "wrapped", 7);
  const std::string written = testing::internal::GetCapturedStderr();
  closelog();
  EXPECT_EQ(written,
            "spoolcap: Failed to parse disdb host. Entry: main:a:b:h.\n"
            "spoolcap: Skiping velkan server (null) from partition other\n"
            "spoolcap: Parsing syslog loglevel for libvelkan: ERROR|WARNING\n"
            "spoolcap: Enabling syslog for libvelkan. Loglevel: 0x11\n"
            "spoolcap: wrapped 7\n");
}
