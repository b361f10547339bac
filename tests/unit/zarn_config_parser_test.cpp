// The readers of directive files, and the two families of line rules that they follow.
#include <spoolcap/zarn_config_parser.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace {

using std::string;
using strings = std::vector<string>;

class ConfigParser : public testing::Test {
 protected:
  // Gives the path of a configuration file with this content.
  string file(const string &content, const string &name = "test.conf") {
    box.write_file(name, content);
    return box.path(name);
  }

  support::sandbox box{{.use_database = false, .use_cache = false}};
  support::log_capture log;
};

TEST_F(ConfigParser, UnreadableFilesAndMissingArgumentsAreTraced) {
  char *value = ::strdup("old");
  const char *absent = "/nonexistent/test.conf";
  EXPECT_EQ(qx_conf_parse_string_value("KEY", absent, &value), -1);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(qx_conf_parse_string_value("KEY", "/dev/null", nullptr), -1);
  EXPECT_EQ(qx_conf_parse_db_cred(nullptr, absent, "a", nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(qx_conf_parse_worker(nullptr, absent, &value), -1);
  EXPECT_EQ(qx_conf_parse_db_host("/dev/null", nullptr, 1, nullptr, nullptr), -1);
  EXPECT_EQ(qx_conf_parse_db_host_custom("/dev/null", "a", nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(log.lines().size(), 6U);
  for (const support::log_line &line : log.lines()) {
    EXPECT_EQ(line.text,
              "../main/zarn_config_parser:" + std::to_string(line.line) + ":conditional return");
    EXPECT_EQ(line.channel, FR_LOG_TRACE);
    EXPECT_EQ(line.priority, FR_LOG_DEBUG);
  }
}

TEST_F(ConfigParser, CredentialsAreTheFieldsOfTheFirstLineWithTheId) {
  const string path = file(
      "DB_CREDENTIALS other:a:b:c\n#DB_CREDENTIALS main:x:x:x\n"
      "text DB_CREDENTIALSmain:u::d # note\nDB_CREDENTIALS main:later:p:d\n");
  char *user = nullptr, *password = nullptr, *database = nullptr;
  EXPECT_EQ(qx_conf_parse_db_cred(nullptr, path.c_str(), "main", &user, &password, &database), 0);
  EXPECT_STREQ(c_string(user).get(), "u");
  EXPECT_STREQ(c_string(password).get(), "");
  EXPECT_STREQ(c_string(database).get(), "d");
  EXPECT_EQ(qx_conf_parse_db_cred(nullptr, path.c_str(), "MAIN", nullptr, nullptr, nullptr), -1);
}

TEST_F(ConfigParser, AMalformedRecordEndsTheSearch) {
  for (const auto &[message, content] :
       {std::pair<const char *, string>("DB credentials line [1] in <", "DB_CREDENTIALS main:u:p"),
        {"DB credentials line [3] in <", "\n# comment\nDB_CREDENTIALS main:u:p:d:e"},
        {"DB credentials line [4] in <", string(600, 'x') + "\nDB_CREDENTIALS"}}) {
    const string path = file(content + "\nDB_CREDENTIALS main:u:p:d\n");
    log.expect(FR_LOG_ERROR, message);
    EXPECT_EQ(qx_conf_parse_db_cred(nullptr, path.c_str(), "main", nullptr, nullptr, nullptr), -1);
  }
  const string path = file("\nDB_MASTER main:dbhost\nDB_MASTER main:h:1\n");
  log.expect(FR_LOG_ERROR, "Invalid DB host line [2] in <" + path + ">.");
  EXPECT_EQ(qx_conf_parse_db_host(path.c_str(), "main", 1, nullptr, nullptr), -1);
}

TEST_F(ConfigParser, AHostIsAllUpToTheLastColonOfTheFirstLineWithTheId) {
  char *host = nullptr;
  int32_t port = 0;
  const string path = file(
      "DB_MASTER main:m:1\nDB_SLAVE other:o:3\n"
      "text DB_SLAVE main:fe80::1:2 # note\nDB_SLAVE main:later:4\n");
  EXPECT_EQ(qx_conf_parse_db_host(path.c_str(), "main", 0, &host, &port), 0);
  EXPECT_STREQ(c_string(host).get(), "fe80::1");
  EXPECT_EQ(port, 2);
}

TEST_F(ConfigParser, ASingleValueFollowsItsKeywordAndABlank) {
  char *value = nullptr, *worker = nullptr;
  const string path = file(
      "KEYS no\n#key no\n  key=no\n \tkey\t yes # too \nKEY later\n"
      "WORKER_EXCHANGES no\ntext WORKER_EXCHANGE yes # note\nWORKER_EXCHANGE later\n");
  EXPECT_EQ(qx_conf_parse_string_value("KEY", path.c_str(), &value), 0);
  EXPECT_STREQ(c_string(value).get(), "yes # too");
  EXPECT_EQ(qx_conf_parse_worker(nullptr, path.c_str(), &worker), 0);
  EXPECT_STREQ(c_string(worker).get(), "yes");
}

class MultiDirectives : public ConfigParser {
 protected:
  ~MultiDirectives() override { qx_conf_parse_multi_directives_free_data(table); }

  strings values() const { return {table->values, table->values + table->count}; }

  qx_conf_directive table[2] = {{"HOST", 0, nullptr}, {}};
};

TEST_F(MultiDirectives, ValuesComeInTheOrderOfTheFilesAndAMissingFileIsLogged) {
  const string first = file(" host\t1\n#HOST 0\nHOST 2 # 3 \n", "first.conf");
  const string second = file("HOST 3\nHOSTS\n", "second.conf");
  const char *const paths[] = {second.c_str(), "/nonexistent", first.c_str(), nullptr};
  log.expect(FR_LOG_ERROR,
             "Error opening configuration file </nonexistent>: No such file or directory.");
  EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, paths), 0);
  EXPECT_EQ(values(), (strings{"3", "S", "1", "2 # 3"}));
  EXPECT_EQ(qx_conf_parse_multi_directives(table, nullptr), 0) << "a list without files";
  EXPECT_EQ(values(), strings{});
}

TEST_F(MultiDirectives, AMissingTableOrListIsInvalid) {
  const char *const no_paths[] = {nullptr};
  EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(nullptr, no_paths), -1);
  EXPECT_EQ(qx_conf_parse_multi_directives_multi_files(table, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
