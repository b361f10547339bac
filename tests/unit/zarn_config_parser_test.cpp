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

  // Announces an error, and tells after `work` that it was logged, alone and once.
  void expect_error(const string &message, const auto &work) {
    log.expect(FR_LOG_ERROR, message);
    work();
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(message, log.lines().back().text);
    log.clear();
  }

  support::sandbox box{{.use_database = false, .use_cache = false}};
  support::log_capture log;
};

TEST_F(ConfigParser, StringValueTakesTheFirstLineThatBeginsWithTheKeyword) {
  const std::pair<string, const char *> rows[] = {
      {" \t key\t \tthe value \r\nKEY later\n", "the value"},
      {"KEY a # b", "a # b"},
      {"KEY \n", ""},
      {"KEY\nKEYX 1\n# KEY 2\n \t#KEY 3\nOTHER KEY 4\nKEY=5\n", nullptr},
      // The piece of a long line that begins at its 8192nd byte counts as a line.
      {string(8191, 'x') + "KEY piece\n", "piece"},
      {string(8190, 'x') + "KEY none\n", nullptr}};
  for (const auto &[content, expected] : rows) {
    char *value = ::strdup("old");
    EXPECT_EQ(0, qx_conf_parse_string_value("KEY", file(content).c_str(), &value));
    EXPECT_STREQ(expected, c_string(value).get()) << content;
  }
}

TEST_F(ConfigParser, UnreadableFilesAndMissingArgumentsAreTraced) {
  char *value = ::strdup("old");
  const char *absent = "/nonexistent/test.conf";
  const string record = file("DB_MASTER a:h:1\n");
  EXPECT_EQ(-1, qx_conf_parse_string_value("KEY", absent, &value));
  EXPECT_EQ(nullptr, value);
  EXPECT_EQ(-1, qx_conf_parse_string_value("KEY", record.c_str(), nullptr));
  EXPECT_EQ(-1, qx_conf_parse_db_cred(nullptr, absent, "a", nullptr, nullptr, nullptr));
  EXPECT_EQ(-1, qx_conf_parse_worker(nullptr, absent, &value));
  EXPECT_EQ(-1, qx_conf_parse_db_host(record.c_str(), nullptr, 1, nullptr, nullptr));
  EXPECT_EQ(-1, qx_conf_parse_db_host_custom(record.c_str(), "a", nullptr, nullptr, nullptr));
  string functions;
  for (const support::log_line &line : log.lines()) {
    functions += line.function.substr(std::strlen("qx_conf_parse_")) + " ";
    EXPECT_EQ("../main/zarn_config_parser:" + std::to_string(line.line) + ":conditional return",
              line.text);
    EXPECT_TRUE(line.channel == FR_LOG_TRACE && line.priority == FR_LOG_DEBUG);
  }
  EXPECT_EQ("string_value string_value db_cred worker db_host_custom db_host_custom ", functions);
}

TEST_F(ConfigParser, CredentialsAreTheFieldsOfTheFirstLineWithTheId) {
  const struct {
    string content, expected;  // the three fields joined with "|"; "" for no such line
  } rows[] = {{"DB_CREDENTIALS other:a:b:c\nDB_CREDENTIALS main:u:p:d # note\n", "u|p|d"},
              {"#DB_CREDENTIALS main:x:x:x\n\nDB_CREDENTIALS main:u::\n", "u||"},
              {"text DB_CREDENTIALSmain:u:p:d", "u|p|d"},
              {"db_credentials main:u:p:d\nDB_CREDENTIALS MAIN:u:p:d\n# DB_CREDENTIALS main\n", ""},
              // Pieces of 255 bytes are lines, so that this comment does not reach the keyword.
              {"#" + string(254, 'x') + "DB_CREDENTIALS main:u:p:d\n", "u|p|d"}};
  for (const auto &row : rows) {
    char *user = nullptr, *password = nullptr, *database = nullptr;
    const int result = qx_conf_parse_db_cred(nullptr, file(row.content).c_str(), "main", &user,
                                             &password, &database);
    const c_string owners[] = {c_string(user), c_string(password), c_string(database)};
    EXPECT_EQ(row.expected.empty() ? -1 : 0, result) << row.content;
    EXPECT_EQ(row.expected, result != 0 ? "" : string(user) + "|" + password + "|" + database);
  }
}

TEST_F(ConfigParser, AMalformedRecordEndsTheSearch) {
  for (const auto &[line, content] :
       {std::pair<const char *, string>("1", "DB_CREDENTIALS main:u:p"),
        {"3", "\n# comment\nDB_CREDENTIALS main:u:p:d:e"},
        {"4", string(600, 'x') + "\nDB_CREDENTIALS"}}) {
    const string path = file(content + "\nDB_CREDENTIALS main:u:p:d\n");
    expect_error("Invalid DB credentials line [" + string(line) + "] in <" + path + ">.", [&] {
      EXPECT_EQ(-1,
                qx_conf_parse_db_cred(nullptr, path.c_str(), "main", nullptr, nullptr, nullptr));
    });
  }
  const string path = file("\nDB_MASTER main:dbhost\nDB_MASTER main:h:1\n");
  expect_error("Invalid DB host line [2] in <" + path + ">.", [&] {
    EXPECT_EQ(-1, qx_conf_parse_db_host(path.c_str(), "main", 1, nullptr, nullptr));
  });
}

TEST_F(ConfigParser, HostsMayHoldColons) {
  const struct {
    const char *content, *host;  // no host: none is found, and the port stays
    int master, port;
  } rows[] = {{"DB_MASTER main:fe80::1:5432 # v6\n", "fe80::1", 1, 5432},
              {"DB_SLAVE main:s:2\nXDB_MASTER main:/run/db.sock:\n", "/run/db.sock", 1, 0},
              {"DB_MASTER main:m:1\nDB_SLAVE main:s:2\n", "s", 0, 2},
              {"DB_MASTERX main:h:1\nDB_SLAVE main:h:1\nDB_MASTER other:h:1\n", nullptr, 1, -7}};
  for (const auto &row : rows) {
    char *host = nullptr;
    int32_t port = -7;
    const int result =
        qx_conf_parse_db_host(file(row.content).c_str(), "main", row.master, &host, &port);
    EXPECT_EQ(row.host == nullptr ? -1 : 0, result) << row.content;
    EXPECT_STREQ(row.host, c_string(host).get()) << row.content;
    EXPECT_EQ(row.port, port) << row.content;
  }
}

TEST_F(ConfigParser, WorkerTakesAnyByteUpTo32OrAbove127AfterTheKeyword) {
  const std::pair<const char *, const char *> rows[] = {
      {"WORKER_EXCHANGE  x y \nWORKER_EXCHANGE z\n", "x y"},
      {"say WORKER_EXCHANGE\tx # note\n", "x"},
      {"WORKER_EXCHANGE", ""},
      {"WORKER_EXCHANGE\xc3\xa4\n", "\xc3\xa4"},
      {"WORKER_EXCHANGE: x\nWORKER_EXCHANGES WORKER_EXCHANGE x\n", nullptr},
      {"# WORKER_EXCHANGE x\nworker_exchange x\n", nullptr}};
  for (const auto &[content, expected] : rows) {
    char *value = nullptr;
    const int result = qx_conf_parse_worker(nullptr, file(content).c_str(), &value);
    EXPECT_EQ(expected == nullptr ? -1 : 0, result) << content;
    EXPECT_STREQ(expected, c_string(value).get()) << content;
  }
}

class MultiDirectives : public ConfigParser {
 protected:
  ~MultiDirectives() override { qx_conf_parse_multi_directives_free_data(table); }

  strings values(int row) const {
    return {table[row].values, table[row].values + table[row].count};
  }

  qx_conf_directive table[3] = {{"HOST", 0, nullptr}, {"NAME", 0, nullptr}, {}};
};

TEST_F(MultiDirectives, NamesArePrefixesAndALineFeedsTheFirstRowThatFits) {
  const string path = file(
      "HOST a\n  host\tb # c\n#HOST no\n\t# HOST no\nHOSTNAME x\nNAMEy\nX HOST no\nname HOST z\n");
  EXPECT_EQ(0, qx_conf_parse_multi_directives(table, path.c_str()));
  EXPECT_EQ((strings{"a", "b # c", "NAME x"}), values(0));
  EXPECT_EQ((strings{"y", "HOST z"}), values(1));
  EXPECT_EQ(0, qx_conf_parse_multi_directives(table, path.c_str()));
  EXPECT_EQ(3, table[0].count) << "once: the table was emptied before";
}

TEST_F(MultiDirectives, ValuesComeInTheOrderOfTheFilesAndMissingFilesAreLogged) {
  const string first = file("HOST 1\nHOST 2\n", "first.conf");
  const string second = file("HOST 3\n", "second.conf");
  const char *const paths[] = {second.c_str(), "/nonexistent", first.c_str(), nullptr};
  expect_error("Error opening configuration file </nonexistent>: No such file or directory.",
               [&] { EXPECT_EQ(0, qx_conf_parse_multi_directives_multi_files(table, paths)); });
  EXPECT_EQ((strings{"3", "1", "2"}), values(0));
  EXPECT_EQ(-1, qx_conf_parse_multi_directives_multi_files(nullptr, paths));
  EXPECT_EQ(EINVAL, std::exchange(errno, 0));
  EXPECT_EQ(-1, qx_conf_parse_multi_directives_multi_files(table, nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0, qx_conf_parse_multi_directives(table, nullptr)) << "a list without files";
  EXPECT_EQ(strings{}, values(0));
}

}  // namespace
