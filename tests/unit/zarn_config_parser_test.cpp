// The readers of directive files, and the two families of line rules that they follow.
#include "zarn_config_parser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/owner.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace {

using std::string;

constexpr const char *source = "../main/zarn_config_parser";

class ConfigParser : public testing::Test {
 protected:
  // Gives the path of a configuration file with this content.
  string file(const string &content, const string &name = "test.conf") {
    box.write_file(name, content);
    return box.path(name);
  }

  // Tells that the call logged the trace of an early return, and nothing else.
  void expect_trace(const char *function) {
    const auto lines = log.lines();
    ASSERT_EQ(1U, lines.size()) << function;
    EXPECT_EQ(FR_LOG_TRACE, lines[0].channel);
    EXPECT_EQ(FR_LOG_DEBUG, lines[0].priority);
    EXPECT_EQ(function, lines[0].function);
    EXPECT_EQ(string(source) + ":" + std::to_string(lines[0].line) + ":conditional return",
              lines[0].text);
    log.clear();
  }

  support::sandbox box{{.use_database = false, .use_cache = false, .extra_lines = {}}};
  support::log_capture log;
};

TEST_F(ConfigParser, StringValueTakesTheFirstLineThatBeginsWithTheKeyword) {
  const struct {
    string content;
    const char *expected;
  } rows[] = {
      {"KEY value\n", "value"},
      {" \t key\t \tthe value \r\nKEY later\n", "the value"},
      {"KEY a # b", "a # b"},
      {"KEY \n", ""},
      {"KEY\nKEYX 1\n# KEY 2\n \t#KEY 3\nOTHER KEY 4\nKEY=5\n", nullptr},
      {"", nullptr},
      // The piece of a long line that begins at its 8192nd byte counts as a line.
      {string(8191, 'x') + "KEY piece\n", "piece"},
      {string(8190, 'x') + "KEY none\n", nullptr},
  };
  for (const auto &row : rows) {
    char *value = ::strdup("old");
    EXPECT_EQ(0, qx_conf_parse_string_value("KEY", file(row.content).c_str(), &value));
    EXPECT_STREQ(row.expected, c_string(value).get()) << row.content;
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ConfigParser, UnreadableFilesAndMissingOutputsAreTraced) {
  const string absent = box.path("absent.conf");
  char *value = ::strdup("old");
  EXPECT_EQ(-1, qx_conf_parse_string_value("KEY", absent.c_str(), &value));
  EXPECT_EQ(nullptr, value);
  expect_trace("qx_conf_parse_string_value");
  EXPECT_EQ(-1, qx_conf_parse_string_value("KEY", absent.c_str(), nullptr));
  expect_trace("qx_conf_parse_string_value");
  EXPECT_EQ(-1, qx_conf_parse_db_cred(nullptr, absent.c_str(), "a", nullptr, nullptr, nullptr));
  expect_trace("qx_conf_parse_db_cred");
  EXPECT_EQ(-1, qx_conf_parse_worker(nullptr, absent.c_str(), &value));
  expect_trace("qx_conf_parse_worker");
  EXPECT_EQ(-1, qx_conf_parse_db_host(absent.c_str(), "a", 1, nullptr, nullptr));
  expect_trace("qx_conf_parse_db_host_custom");
}

TEST_F(ConfigParser, CredentialsAreTheFieldsOfTheFirstLineWithTheId) {
  const struct {
    string content;
    const char *expected;  // the three fields joined with "|", or none
  } rows[] = {
      {"DB_CREDENTIALS main:u:p:d\n", "u|p|d"},
      {"DB_CREDENTIALS main:u:p:d # note\n", "u|p|d"},
      {"#DB_CREDENTIALS main:x:x:x\n\nDB_CREDENTIALS other:a:b:c\nDB_CREDENTIALS main:u::\n",
       "u||"},
      {"text DB_CREDENTIALSmain:u:p:d", "u|p|d"},
      {"db_credentials main:u:p:d\nDB_CREDENTIALS MAIN:u:p:d\n", nullptr},
      {"# DB_CREDENTIALS main\n", nullptr},
      // Pieces of 255 bytes are lines, so that this comment does not reach the keyword.
      {"#" + string(254, 'x') + "DB_CREDENTIALS main:u:p:d\n", "u|p|d"},
  };
  for (const auto &row : rows) {
    char *fields[3] = {};
    const int result = qx_conf_parse_db_cred(nullptr, file(row.content).c_str(), "main", &fields[0],
                                             &fields[1], &fields[2]);
    const c_string owners[] = {c_string(fields[0]), c_string(fields[1]), c_string(fields[2])};
    EXPECT_EQ(row.expected == nullptr ? -1 : 0, result) << row.content;
    if (result == 0) {
      EXPECT_EQ(row.expected, string(fields[0]) + "|" + fields[1] + "|" + fields[2]);
    } else {
      EXPECT_EQ(nullptr, fields[0]) << row.content;
    }
  }
  const string other = file("OTHER main:u:p:d\n");
  EXPECT_EQ(0, qx_conf_parse_db_cred("OTHER", other.c_str(), "main", nullptr, nullptr, nullptr));
}

TEST_F(ConfigParser, AMalformedCredentialsLineEndsTheSearch) {
  const struct {
    string before;
    const char *record;
    int line;
  } rows[] = {
      {"", "main:u:p", 1},
      {"\n# comment\n", "main:u:p:d:e", 3},
      {string(600, 'x') + "\n", "", 4},
  };
  for (const auto &row : rows) {
    const string path =
        file(row.before + "DB_CREDENTIALS " + row.record + "\nDB_CREDENTIALS main:u:p:d\n");
    const string message =
        "Invalid DB credentials line [" + std::to_string(row.line) + "] in <" + path + ">.";
    log.expect(FR_LOG_ERROR, message);
    char *field = nullptr;
    EXPECT_EQ(-1, qx_conf_parse_db_cred(nullptr, path.c_str(), "main", &field, nullptr, nullptr));
    EXPECT_EQ(nullptr, field);
    EXPECT_EQ(std::vector<string>{message}, log.messages());
    log.clear();
  }
}

TEST_F(ConfigParser, HostsMayHoldColons) {
  const struct {
    const char *content, *host;  // no host: none is found
    int port;
  } rows[] = {
      {"DB_MASTER main:h:3306\n", "h", 3306},
      {"DB_MASTER main:fe80::1:5432 # v6\n", "fe80::1", 5432},
      {"DB_MASTER main:/run/db.sock:\n", "/run/db.sock", 0},
      {"XDB_MASTER main:h:1\n", "h", 1},
      {"DB_MASTERX main:h:1\n", nullptr, 0},
      {"DB_SLAVE main:h:1\nDB_MASTER other:h:1\n", nullptr, 0},
  };
  for (const auto &row : rows) {
    char *host = nullptr;
    int32_t port = -7;
    const int result = qx_conf_parse_db_host(file(row.content).c_str(), "main", 1, &host, &port);
    EXPECT_EQ(row.host == nullptr ? -1 : 0, result) << row.content;
    EXPECT_STREQ(row.host, c_string(host).get()) << row.content;
    EXPECT_EQ(row.host == nullptr ? -7 : row.port, port) << row.content;
  }
  const string slave = file("DB_MASTER main:m:1\nDB_SLAVE main:s:2\n");
  char *host = nullptr;
  EXPECT_EQ(0, qx_conf_parse_db_host(slave.c_str(), "main", 0, &host, nullptr));
  EXPECT_STREQ("s", c_string(host).get());
  EXPECT_EQ(-1, qx_conf_parse_db_host_custom(slave.c_str(), "main", nullptr, nullptr, nullptr));
}

TEST_F(ConfigParser, AMalformedHostLineEndsTheSearch) {
  const string path = file("\nDB_MASTER main:dbhost\nDB_MASTER main:h:1\n");
  const string message = "Invalid DB host line [2] in <" + path + ">.";
  log.expect(FR_LOG_ERROR, message);
  EXPECT_EQ(-1, qx_conf_parse_db_host(path.c_str(), "main", 1, nullptr, nullptr));
  EXPECT_EQ(std::vector<string>{message}, log.messages());
}

TEST_F(ConfigParser, WorkerTakesAnyByteUpTo32OrAbove127AfterTheKeyword) {
  const struct {
    const char *content, *expected;
  } rows[] = {
      {"WORKER_EXCHANGE  x y \nWORKER_EXCHANGE z\n", "x y"},
      {"say WORKER_EXCHANGE\tx # note\n", "x"},
      {"WORKER_EXCHANGE\n", ""},
      {"WORKER_EXCHANGE", ""},
      {"WORKER_EXCHANGE\xc3\xa4\n", "\xc3\xa4"},
      {"WORKER_EXCHANGE: x\nWORKER_EXCHANGES WORKER_EXCHANGE x\n", nullptr},
      {"# WORKER_EXCHANGE x\nworker_exchange x\n", nullptr},
  };
  for (const auto &row : rows) {
    char *value = nullptr;
    const int result = qx_conf_parse_worker(nullptr, file(row.content).c_str(), &value);
    EXPECT_EQ(row.expected == nullptr ? -1 : 0, result) << row.content;
    EXPECT_STREQ(row.expected, c_string(value).get()) << row.content;
  }
}

std::vector<string> values_of(const qx_conf_directive &row) {
  return {row.values, row.values + row.count};
}

class MultiDirectives : public ConfigParser {
 protected:
  ~MultiDirectives() override { qx_conf_parse_multi_directives_free_data(table); }

  qx_conf_directive table[3] = {{"HOST", 0, nullptr}, {"NAME", 0, nullptr}, {}};
};

using strings = std::vector<string>;

TEST_F(MultiDirectives, NamesArePrefixesAndALineFeedsTheFirstRowThatFits) {
  const string path = file(
      "HOST a\n  host\tb # c\n#HOST no\n\t# HOST no\nHOSTS x\nNAMEy\nX HOST no\n"
      "NAME\nname HOST z\n");
  EXPECT_EQ(0, qx_conf_parse_multi_directives(table, path.c_str()));
  EXPECT_EQ((strings{"a", "b # c", "S x"}), values_of(table[0]));
  EXPECT_EQ((strings{"y", "", "HOST z"}), values_of(table[1]));

  qx_conf_directive longer_last[] = {{"HOST", 0, nullptr}, {"HOSTS", 0, nullptr}, {}};
  EXPECT_EQ(0, qx_conf_parse_multi_directives(longer_last, path.c_str()));
  EXPECT_EQ(3, longer_last[0].count);
  EXPECT_EQ(0, longer_last[1].count);
  qx_conf_parse_multi_directives_free_data(longer_last);
}

TEST_F(MultiDirectives, ValuesComeInTheOrderOfTheFilesAndMissingFilesAreLogged) {
  const string first = file("HOST 1\nHOST 2\n", "first.conf");
  const string second = file("HOST 3\n", "second.conf");
  const string absent = box.path("absent.conf");
  const char *const paths[] = {second.c_str(), absent.c_str(), first.c_str(), nullptr};
  const string message =
      "Error opening configuration file <" + absent + ">: " + std::strerror(ENOENT) + ".";
  log.expect(FR_LOG_ERROR, message);
  EXPECT_EQ(0, qx_conf_parse_multi_directives_multi_files(table, paths));
  EXPECT_EQ((strings{"3", "1", "2"}), values_of(table[0]));
  EXPECT_EQ(strings{message}, log.messages());
}

TEST_F(MultiDirectives, ASecondCallStartsFromAnEmptyTable) {
  const string path = file("HOST 1\nNAME 2\n");
  EXPECT_EQ(0, qx_conf_parse_multi_directives(table, path.c_str()));
  EXPECT_EQ(0, qx_conf_parse_multi_directives(table, file("HOST 3\n").c_str()));
  EXPECT_EQ(strings{"3"}, values_of(table[0]));
  EXPECT_EQ(0, table[1].count);
  EXPECT_EQ(nullptr, table[1].values);
}

TEST_F(MultiDirectives, NullArgumentsAreInvalid) {
  const char *const paths[] = {nullptr};
  errno = 0;
  EXPECT_EQ(-1, qx_conf_parse_multi_directives_multi_files(nullptr, paths));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, qx_conf_parse_multi_directives_multi_files(table, nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, qx_conf_parse_multi_directives(table, nullptr));
  EXPECT_EQ(0, qx_conf_parse_multi_directives_multi_files(table, paths));
}

}  // namespace
