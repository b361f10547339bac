// The base library: hash, logger, strings, counted strings, configuration table reader.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include <spoolcap/log.h>
#include <spoolcap/safestr.h>
#include "platform/base/hash.h"
#include "platform/base/parseconfig.h"
#include "platform/base/str.h"
#include "tests/support/sandbox.h"

namespace {

using std::string;
using namespace std::literals;
using hash_owner = std::unique_ptr<fr_hash_t, call_to_release<fr__hash_destroy>>;
using strings = std::vector<string>;

TEST(Hash, KeepsItsKeysInOrderAndDestroysWhatItHeld) {
  static std::vector<string> destroyed;
  hash_owner table(fr_hash_init_api(1, [](void *value) {
    destroyed.emplace_back(static_cast<char *>(value));
    return 0;
  }));
  EXPECT_EQ(fr_hash_empty(table.get()), 1);
  const std::pair<string, const char *> added[] = {
      {"a\0c"s, "1"}, {"a\0b"s, "2"}, {"a"s, "3"}, {"a\0c"s, "4"}};
  for (const auto &[key, value] : added) {
    ASSERT_EQ(fr_hash_force_add(table.get(), key.data(), key.size(), value, 2), 0);
  }
  EXPECT_EQ(destroyed, strings{"1"}) << "the same key again";
  EXPECT_EQ(fr_hash_empty(table.get()), 0);
  EXPECT_EQ(fr_hash_find(table.get(), "a\0", 2), nullptr);
  EXPECT_STREQ(static_cast<char *>(fr_hash_find(table.get(), "a\0b", 3)), "2");
  const std::unique_ptr<fr_array_t, call_to_release<fr_array_free>> found(
      fr_hash_getkeys(table.get()));
  ASSERT_EQ(fr_array_length(found.get()), 3U);
  EXPECT_EQ(std::memcmp(fr_array_get(found.get(), 0), "a\0c", 3), 0);
  EXPECT_EQ(fr_array_get(found.get(), 3), nullptr);
  table.reset();
  EXPECT_EQ(destroyed.size(), 4U);
}

TEST(Log, RecordsReachTheSinkWithTheirPlaceAndLeaveErrnoAlone) {
  const string longer(5000, 'x');
  const auto log_one = [&longer] {
    errno = EXDEV;
    fr_log_impl("f", 12, "work", FR_LOG_TRACE, FR_LOG_DEBUG, "%d\n%s\n\n", 7, longer.c_str());
    EXPECT_EQ(errno, EXDEV);
  };
  string text;
  fr_log_set_sink(
      [](const fr_log_record *record, void *taken) {
        EXPECT_STREQ(record->file, "f");
        EXPECT_EQ(record->line, 12);
        EXPECT_STREQ(record->function, "work");
        EXPECT_EQ(record->channel, FR_LOG_TRACE);
        EXPECT_EQ(record->priority, FR_LOG_DEBUG);
        *static_cast<string *>(taken) = record->text;
        errno = ERANGE;
      },
      &text);
  log_one();
  EXPECT_EQ(text, "7\n" + longer);
  fr_log_set_sink(nullptr, nullptr);  // the system's own log
  log_one();
}

TEST(BaseText, TrimRemovesWhiteSpaceAtTheSidesOfItsModeOnly) {
  const struct {
    string text;
    int mode;
    const char *expected;
  } rows[] = {{"\t\v a b \r\n", FR_TRIM_BOTH, "a b"},
              {" a ", FR_TRIM_START, "a "},
              {" a ", FR_TRIM_END, " a"},
              {"\x01 a\x01", FR_TRIM_BOTH, "\x01 a\x01"}};
  for (auto row : rows) EXPECT_STREQ(fr_str_trim(row.text.data(), row.mode), row.expected);
}

TEST(BaseText, ExplodeKeepsEmptyFieldsAndImplodeJoinsARange) {
  const text_array fields = fr_explode(":a::b:", ':');
  EXPECT_EQ(strings(fields.data(), fields.data() + fields.count()),
            (strings{"", "a", "", "b", ""}));
  EXPECT_STREQ(fr_implode(fields, 1, 3, ':').get(), "a::b");
  EXPECT_EQ(fr_implode(fields, 2, 1, ':'), nullptr);
  EXPECT_EQ(fr_implode(fields, 3, 5, ':'), nullptr);
}

TEST(BaseText, Base64IsStandardPaddedAndInOneLine) {
  const string large((3 << 20) + 1, '\0');  // beyond the size that is encoded at once
  const std::pair<string, string> rows[] = {
      {"", ""},
      {"fo", "Zm8="},
      {{"\0\xff\xfe", 3}, "AP/+"},
      {large, string((large.size() - 1) / 3 * 4, 'A') + "AA=="}};
  for (const auto &[data, expected] : rows) {
    EXPECT_EQ(base64_enc_str(data).get(), expected);
  }
}

TEST(SafeStr, CountsNulBytesBeforeItsEnd) {
  const safestr_owner text(safestr_create("a\0b", 3));
  EXPECT_EQ(string(text.get(), safestr_length(text.get()) + 1), string("a\0b\0", 4));
}

TEST(Parseconfig, TakesEveryFormOfALine) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const struct {
    const char *content, *expected;
  } rows[] = {{"  KEY\t/srv/q  \r\n", "/srv/q"},
              {"KEY = /srv/q", "/srv/q"},
              {"KEY \"/srv/my q \"\n", "/srv/my q "},
              {"KEY\n", ""},
              {"KEY =x\n", "=x"},
              {"KEY one\nKEY a = b # c\n", "a = b # c"},
              {"KEY \"\n", "\""},
              {"  # KEY x\n#KEY y\nKEYS x\nkey y\nX KEY z\n\n", "as it was"}};
  string value;
  const parseconfig_entry entries[] = {{"KEY", &value}};
  for (const auto &row : rows) {
    value = "as it was";
    box.write_file("paths.conf", row.content);
    EXPECT_EQ(parseconfig(box.path("paths.conf").c_str(), entries, 1), 0) << row.content;
    EXPECT_EQ(value, row.expected) << row.content;
  }
  for (const char *unreadable : {"/nonexistent/paths.conf", "/"}) {
    EXPECT_EQ(parseconfig(unreadable, entries, 1), -1) << unreadable;
  }
}

}  // namespace
