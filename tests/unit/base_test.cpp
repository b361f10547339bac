// The base library: hash, logger, strings, counted strings, configuration table reader.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/hash.h"
#include "base/log.h"
#include "base/owner.h"
#include "base/parseconfig.h"
#include "base/safestr.h"
#include "base/str.h"
#include "support/sandbox.h"

namespace {

using hash_owner = std::unique_ptr<fr_hash_t, call_to_release<fr__hash_destroy>>;
using array_owner = std::unique_ptr<fr_array_t, call_to_release<fr_array_free>>;
using safestr_owner = std::unique_ptr<char, call_to_release<safestr_free>>;

std::vector<int> destroyed;

int note_destroyed(void *value) {
  destroyed.push_back(*static_cast<int *>(value));
  return 0;
}

TEST(Hash, KeepsKeysInTheOrderOfTheirFirstAddition) {
  const hash_owner table(fr_hash_init_api(1, nullptr));
  std::vector<int> added(5000);
  for (size_t i = 0; i < added.size(); ++i) added[i] = static_cast<int>(i * 7919 % 5003);
  for (const int key : added) ASSERT_EQ(0, fr_hash_force_add(table.get(), key, key));
  ASSERT_EQ(0, fr_hash_force_add(table.get(), added.front(), -1));

  const array_owner keys(fr_hash_getkeys(table.get()));
  std::vector<int> found;
  for (size_t i = 0; i < fr_array_length(keys.get()); ++i) {
    found.push_back(*static_cast<const int *>(fr_array_get(keys.get(), i)));
  }
  EXPECT_EQ(added, found);
  EXPECT_EQ(nullptr, fr_array_get(keys.get(), added.size()));
  EXPECT_EQ(-1, *fr_hash_find<int>(table.get(), added.front()));
  for (size_t i = 1; i < added.size(); ++i) {
    const int *value = fr_hash_find<int>(table.get(), added[i]);
    ASSERT_NE(nullptr, value) << added[i];
    EXPECT_EQ(added[i], *value);
  }
  EXPECT_EQ(nullptr, fr_hash_find<int>(table.get(), 5003));
}

TEST(Hash, TellsKeysApartByAllTheirBytes) {
  const hash_owner table(fr_hash_init_api(1, nullptr));
  EXPECT_EQ(1, fr_hash_empty(table.get()));
  ASSERT_EQ(0, fr_hash_force_add(table.get(), "a\0b", 3, "long", 5));
  EXPECT_EQ(0, fr_hash_empty(table.get()));
  EXPECT_EQ(nullptr, fr_hash_find(table.get(), "a\0c", 3));
  EXPECT_EQ(nullptr, fr_hash_find(table.get(), "a\0b", 2));
  EXPECT_STREQ("long", static_cast<char *>(fr_hash_find(table.get(), "a\0b", 3)));
}

TEST(Hash, RunsTheDestructorOnReplacedAndRemainingValues) {
  destroyed.clear();
  hash_owner table(fr_hash_init_api(1, note_destroyed));
  ASSERT_EQ(0, fr_hash_force_add(table.get(), 1, 10));
  ASSERT_EQ(0, fr_hash_force_add(table.get(), 2, 20));
  EXPECT_TRUE(destroyed.empty());
  ASSERT_EQ(0, fr_hash_force_add(table.get(), 1, 11));
  EXPECT_EQ(std::vector<int>{10}, destroyed);
  table.reset();
  EXPECT_EQ((std::vector<int>{10, 11, 20}), destroyed);
}

TEST(Hash, MayBeReadByItsLocksHolder) {
  const hash_owner table(fr_hash_init_api(1, nullptr));
  ASSERT_EQ(0, fr_hash_force_add(table.get(), 1, 2));
  fr_hash_lock(table.get());
  const int *value = fr_hash_find<int>(table.get(), 1);
  fr_hash_unlock(table.get());
  EXPECT_EQ(2, *value);
}

struct kept_record {
  std::string file, function, text;
  int line, channel, priority;
};

void keep_record(const fr_log_record *record, void *context) {
  static_cast<std::vector<kept_record> *>(context)->push_back({record->file, record->function,
                                                               record->text, record->line,
                                                               record->channel, record->priority});
  errno = ERANGE;
}

class Log : public testing::Test {
 protected:
  Log() { fr_log_set_sink(keep_record, &records); }
  ~Log() override { fr_log_set_sink(nullptr, nullptr); }

  std::vector<kept_record> records;
};

TEST_F(Log, RecordsReachTheSinkWithTheirPlaceAndWithoutTrailingNewlines) {
  const std::string longer(5000, 'x');
  fr_log_impl("../main/x", 12, "work", FR_LOG_TRACE, FR_LOG_DEBUG, "%d\n%s\n\n", 7, longer.c_str());
  fr_log_impl("f", 1, "g", FR_LOG_MESSAGE, FR_LOG_ERROR, "\n");
  ASSERT_EQ(2U, records.size());
  EXPECT_EQ("../main/x", records[0].file);
  EXPECT_EQ(12, records[0].line);
  EXPECT_EQ("work", records[0].function);
  EXPECT_EQ(FR_LOG_TRACE, records[0].channel);
  EXPECT_EQ(FR_LOG_DEBUG, records[0].priority);
  EXPECT_EQ("7\n" + longer, records[0].text);
  EXPECT_EQ("", records[1].text);
}

TEST_F(Log, LeavesErrnoAsItWas) {
  errno = ENOENT;
  fr_log_impl("f", 1, "g", FR_LOG_MESSAGE, FR_LOG_ERROR, "x");
  EXPECT_EQ(ENOENT, errno);
  fr_log_set_sink(nullptr, nullptr);
  fr_log_impl("f", 1, "g", FR_LOG_MESSAGE, FR_LOG_DEBUG, "to the system's own log");
  EXPECT_EQ(ENOENT, errno);
}

TEST(Str, TrimRemovesWhiteSpaceAtTheSidesToldOnly) {
  const struct {
    const char *text;
    int mode;
    const char *expected;
  } rows[] = {
      {"\t\v a b \r\n", FR_TRIM_BOTH, "a b"},
      {" a ", FR_TRIM_START, "a "},
      {" a ", FR_TRIM_END, " a"},
      {" a ", 0, " a "},
      {" \n ", FR_TRIM_BOTH, ""},
      {"\x01 a\x01", FR_TRIM_BOTH, "\x01 a\x01"},
  };
  for (const auto &row : rows) {
    std::string text = row.text;
    EXPECT_STREQ(row.expected, fr_str_trim(text.data(), row.mode)) << row.text << row.mode;
  }
}

TEST(Str, ExplodeKeepsEmptyFieldsAndImplodeJoinsARange) {
  size_t count = 0;
  char **fields = fr_explode(":a::b:", ':', &count);
  ASSERT_EQ(5U, count);
  EXPECT_STREQ("", fields[0]);
  EXPECT_STREQ("b", fields[3]);
  EXPECT_STREQ("", fields[4]);
  EXPECT_EQ(nullptr, fields[5]);
  EXPECT_STREQ("a::b", c_string(fr_implode(fields, 1, 3, ':')).get());
  EXPECT_STREQ("a", c_string(fr_implode(fields, 1, 1, ':')).get());
  EXPECT_EQ(nullptr, fr_implode(fields, 2, 1, ':'));
  fr_explode_free(fields);

  fields = fr_explode("", ':', &count);
  EXPECT_EQ(1U, count);
  fr_explode_free(fields);
}

TEST(Str, Base64IsStandardPaddedAndInOneLine) {
  const struct {
    std::string data;
    const char *expected;
  } rows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {{"\0\xff\xfe", 3}, "AP/+"}};
  for (const auto &row : rows) {
    EXPECT_STREQ(row.expected, c_string(base64_enc_str(row.data.data(), row.data.size())).get());
  }
  // Beyond the size that is encoded at once.
  const std::string large((3 << 20) + 1, '\0');
  const c_string encoded(base64_enc_str(large.data(), large.size()));
  EXPECT_EQ(std::string((large.size() - 1) / 3 * 4, 'A') + "AA==", encoded.get());
}

TEST(SafeStr, CountsNulBytesBeforeItsEnd) {
  const safestr_owner text(safestr_create("a\0b", 3));
  EXPECT_EQ(3U, safestr_length(text.get()));
  EXPECT_EQ(0, std::memcmp("a\0b", text.get(), 4));
  const safestr_owner copy(safestr_dup(text.get()));
  EXPECT_EQ(1U, safestr_length(copy.get()));
  EXPECT_EQ(nullptr, safestr_dup(nullptr));
}

TEST(Parseconfig, TakesEveryFormOfALine) {
  support::sandbox box({.use_database = false, .use_cache = false, .extra_lines = {}});
  const struct {
    const char *content;
    const char *expected;
  } rows[] = {
      {"KEY /srv/q\n", "/srv/q"},
      {"  KEY\t/srv/q  \r\n", "/srv/q"},
      {"KEY = /srv/q", "/srv/q"},
      {"KEY \"/srv/my q \"\n", "/srv/my q "},
      {"KEY = \"\"\n", ""},
      {"KEY\n", ""},
      {"KEY =\n", ""},
      {"KEY =x\n", "=x"},
      {"KEY a = b # c\n", "a = b # c"},
      {"KEY one\nKEY two\n", "two"},
      {"KEY \"\n", "\""},
      {"  # KEY x\n#KEY y\n", "untouched"},
      {"KEYS x\nkey y\nOTHER KEY z\n\n", "untouched"},
  };
  for (const auto &row : rows) {
    safestr_t value = safestr_dup("untouched");
    const parseconfig_entry entries[] = {{"KEY", &value}};
    box.write_file("paths.conf", row.content);
    EXPECT_EQ(0, parseconfig(box.path("paths.conf").c_str(), entries, 1)) << row.content;
    const safestr_owner owner(value);
    EXPECT_STREQ(row.expected, value) << row.content;
  }
}

TEST(Parseconfig, ReportsAFileThatCannotBeReadAndLeavesTheValues) {
  safestr_t value = nullptr;
  const parseconfig_entry entries[] = {{"KEY", &value}};
  EXPECT_EQ(-1, parseconfig("/nonexistent/paths.conf", entries, 1));
  EXPECT_EQ(-1, parseconfig("/", entries, 1));
  EXPECT_EQ(nullptr, value);
}

}  // namespace
