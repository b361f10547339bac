#include "zarn_velkan.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>

#include "support/log_capture.h"
#include "support/sandbox.h"
#include "velkan/group.h"

namespace {

constexpr const char *disdbase = "etc/quorvex/disdbase.conf";
constexpr const char *pbx = "etc/quorvex/pbx.conf";
constexpr const char *local = "etc/quorvex/local.conf";

class ZarnVelkan : public testing::Test {
 protected:
  ZarnVelkan() {
    box.write_file(disdbase, "");
    box.write_file(pbx, "");
    box.write_file(local, "");
  }
  ~ZarnVelkan() override { vk_client_destroy(client); }

  int set_up() {
    vk_client_destroy(client);
    client = nullptr;
    log.clear();
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
  box.write_file(disdbase,
                 "DISDBASE_HOST main:a:b:10.0.0.5:6400\n"
                 "DISDBASE_HOST other:a:b:10.0.0.6:6400\n"
                 "DISDBASE_HOST main:a:b:10.0.0.7\n"
                 "DISDBASE_HOST main:a:b:host:none\n"
                 "DISDBASE_CREDENTIALS main:x::3\n");
  box.write_file(pbx, "DISDBASE_HOST main:c:d:fe80::5:6401\n");
  const char *const refused[] = {"other:a:b:10.0.0.6:6400", "main:a:b:10.0.0.7",
                                 "main:a:b:host:none"};
  for (const std::string value : refused) {
    log.expect(FR_LOG_ERROR,
               "Failed to add vk server [" + value + "] from /etc/quorvex/disdbase.conf.");
  }
  EXPECT_EQ(set_up(), 0);
  EXPECT_EQ(servers(), "a:b=10.0.0.5:6400 c:d=fe80::5:6401 ");
  EXPECT_TRUE(log.has("Adding vk server [main:c:d:fe80::5:6401] was successfull."));
  EXPECT_EQ(client->state->database, 3);
  EXPECT_TRUE(client->state->keys.empty());
}

TEST_F(ZarnVelkan, TheFirstValidCredentialsOfMainAreUsed) {
  box.write_file(disdbase,
                 "DISDBASE_HOST main:a:b:h:1\n"
                 "DISDBASE_CREDENTIALS main:x:k\n"
                 "DISDBASE_CREDENTIALS other:x:k:0\n"
                 "DISDBASE_CREDENTIALS other:x:k:4\n");
  box.write_file(pbx,
                 "DISDBASE_CREDENTIALS main:x:secret:5:more\n"
                 "DISDBASE_CREDENTIALS bad\n");
  constexpr const char *prefix = "Failed to parse velkan credentials from /etc/quorvex/pbx.conf. ";
  log.expect(FR_LOG_ERROR, std::string(prefix) + "Entry nr: 0.");
  log.expect(FR_LOG_ERROR, std::string(prefix) + "Invalid db number. Entry nr: 1.");
  log.expect(FR_LOG_ERROR, "Skipping velkan credentials for partition other.");
  EXPECT_EQ(set_up(), 0);
  EXPECT_FALSE(log.has("Entry nr: 4")) << "nothing after the first valid entry is looked at";
  EXPECT_EQ(client->state->database, 5);
  EXPECT_EQ(client->state->keys, (std::map<int, std::string>{{5, "secret"}}));
}

TEST_F(ZarnVelkan, WithoutAServerOrCredentialsOfMainTheSetUpFailsAndTheClientStays) {
  EXPECT_EQ(set_up(), -1);
  EXPECT_NE(client, nullptr);
  box.write_file(disdbase, "DISDBASE_CREDENTIALS main:x:k:2\n");
  EXPECT_EQ(set_up(), -1);
  EXPECT_EQ(client->state->database, 2) << "the credentials were applied all the same";
  box.write_file(disdbase, "DISDBASE_HOST main:a:b:h:1\n");
  EXPECT_EQ(set_up(), -1);
  EXPECT_EQ(client->state->servers.size(), 1U);

  std::filesystem::remove(box.path(local));
  log.expect(FR_LOG_ERROR,
             "Failed to open disdbase options configuration file (/etc/quorvex/local.conf).");
  EXPECT_EQ(set_up(), -1);
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->state->servers.empty()) << "nothing else is read then";
}

TEST_F(ZarnVelkan, LevelWordsAreExactAndJoinedByBars) {
  struct {
    const char *text;
    unsigned mask;
  } const rows[] = {
      {"ERROR|DEBUG", 0x03},
      {"DEBUG|DEBUG", 0x02},
      {"EVENT|NOTICE|WARNING", 0x1c},
      {"error|Debug", 0},
      {"ERROR| DEBUG", 0x01},
      {"|ERROR|", 0x01},
      {"ERRORS", 0},
      {"", 0},
  };
  set_up();
  for (const auto &row : rows) {
    vk_enable_syslog(client, 0);
    EXPECT_EQ(add_vk_syslog_(client, row.text), 0) << row.text;
    EXPECT_EQ(client->state->log_mask, row.mask) << row.text;
  }
  box.write_file(local, "VELKAN_DEBUG_PBX ERROR|WARNING\n");
  set_up();
  EXPECT_EQ(client->state->log_mask, 0x11U);
}

TEST_F(ZarnVelkan, AddingAServerGivesOneForAValueThatIsNotItsOwn) {
  set_up();
  EXPECT_EQ(add_vk_srv_(client, "main:a:b:h:1"), 0);
  EXPECT_EQ(add_vk_srv_(client, "main:a:b:h"), 1);
  EXPECT_EQ(add_vk_srv_(client, "Main:a:b:h:1"), 1);
  EXPECT_EQ(add_vk_srv_(client, ""), 1);
  EXPECT_EQ(add_vk_srv_(client, "main:a:b::1"), VK_ERR_ARGUMENT) << "the library's own status";
}

TEST_F(ZarnVelkan, WhatIsWrittenToSyslogDirectlyKeepsItsTexts) {
  set_up();
  openlog("spoolcap", LOG_PERROR, LOG_USER);  // shows on standard error what is sent
  testing::internal::CaptureStderr();
  add_vk_srv_(client, "main:a:b:h");
  add_vk_srv_(client, "other:a:b:h:1");
  add_vk_syslog_(client, "none|of|these");
  add_vk_syslog_(client, "ERROR|WARNING");
  log_wrap(LOG_ERR, "%s %d", "wrapped", 7);
  const std::string written = testing::internal::GetCapturedStderr();
  closelog();
  EXPECT_EQ(written,
            "spoolcap: Failed to parse disdb host. Entry: main:a:b:h.\n"
            "spoolcap: Skiping velkan server (null) from partition other\n"
            "spoolcap: Parsing syslog loglevel for libvelkan: none|of|these\n"
            "spoolcap: Parsing syslog loglevel for libvelkan: ERROR|WARNING\n"
            "spoolcap: Enabling syslog for libvelkan. Loglevel: 0x11\n"
            "spoolcap: wrapped 7\n");
}

TEST_F(ZarnVelkan, AClientThatWasSetUpReachesItsDatabase) {
  support::redis_options protected_by;
  protected_by.password = "se:cret";
  support::redis_server server(protected_by);
  box.write_file(disdbase, "DISDBASE_HOST main:a:b:" + server.socket() + ":0\n");
  protected_by.password = "secret";
  support::redis_server other(protected_by);
  box.write_file(pbx, "DISDBASE_HOST main:a:b:" + other.socket() +
                          ":0\nDISDBASE_CREDENTIALS main:x:secret:7\n");
  ASSERT_EQ(set_up(), 0);
  EXPECT_EQ(vk_hset(client, "k", 1, "f", 1, "v", 1, 1), VK_OK)
      << "the first server refuses the key, the second takes it";
}
