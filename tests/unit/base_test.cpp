// The base library: hash, logger, strings, counted strings, configuration table reader.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include <spoolcap/log.h>
#include <spoolcap/safestr.h>
#include "platform/base/hash.h"
#include "platform/base/parseconfig.h"
#include "platform/base/str.h"
#include "tests/support/sandbox.h"

namespace {

using std::string;
using hash_owner = std::unique_ptr<fr_hash_t, call_to_release<fr__hash_destroy>>;
using strings = std::vector<string>;

TEST(Hash, KeepsKeysInTheOrderOfTheirFirstAddition) {
  const hash_owner table(fr_hash_init_api(1, nullptr));
  EXPECT_EQ(1, fr_hash_empty(table.get()));
  std::vector<int> added(5000), found;
  for (size_t i = 0; i < added.size(); ++i) added[i] = static_cast<int>(i * 7919 % 5003);
  for (const int key : added) ASSERT_EQ(0, fr_hash_force_add(table.get(), key, -key));
  ASSERT_EQ(0, fr_hash_force_add(table.get(), added.front(), 1));
  EXPECT_EQ(0, fr_hash_empty(table.get()));

  const std::unique_ptr<fr_array_t, call_to_release<fr_array_free>> keys(
      fr_hash_getkeys(table.get()));
  fr_hash_lock(table.get());  // whoever holds the lock may still read
  for (size_t i = 0; i < fr_array_length(keys.get()); ++i) {
    found.push_back(*static_cast<const int *>(fr_array_get(keys.get(), i)));
    EXPECT_EQ(i == 0 ? 1 : -added[i], *fr_hash_find<int>(table.get(), found.back()));
  }
  fr_hash_unlock(table.get());
  EXPECT_EQ(added, found);
  EXPECT_EQ(nullptr, fr_array_get(keys.get(), added.size()));
}

TEST(Hash, TellsKeysApartByAllTheirBytesAndDestroysWhatItHeld) {
  static std::vector<string> destroyed;
  hash_owner table(fr_hash_init_api(1, [](void *value) {
    destroyed.emplace_back(static_cast<char *>(value));
    return 0;
  }));
  for (const char *value : {"first", "new"}) {
    ASSERT_EQ(0, fr_hash_force_add(table.get(), "a\0b", 3, value, strlen(value) + 1));
  }
  EXPECT_EQ(strings{"first"}, destroyed);
  EXPECT_EQ(nullptr, fr_hash_find(table.get(), "a\0c", 3));
  EXPECT_EQ(nullptr, fr_hash_find(table.get(), "a\0b", 2));
  EXPECT_STREQ("new", static_cast<char *>(fr_hash_find(table.get(), "a\0b", 3)));
  table.reset();
  EXPECT_EQ((strings{"first", "new"}), destroyed);
}

TEST(Log, RecordsReachTheSinkWithTheirPlaceAndLeaveErrnoAlone) {
  static std::ostringstream seen;
  const fr_log_sink keep = [](const fr_log_record *record, void *) {
    seen << record->file << " " << record->line << " " << record->function << " "
         << (record->channel == FR_LOG_TRACE) << (record->priority == FR_LOG_DEBUG) << record->text;
    errno = ERANGE;
  };
  const string longer(5000, 'x');
  for (const fr_log_sink sink : {keep, fr_log_sink{}}) {  // without one: the system's own log
    fr_log_set_sink(sink, nullptr);
    errno = EXDEV;
    fr_log_impl("f", 12, "work", FR_LOG_TRACE, FR_LOG_DEBUG, "%d\n%s\n\n", 7, longer.c_str());
    EXPECT_EQ(EXDEV, errno);
  }
  EXPECT_EQ("f 12 work 117\n" + longer, seen.str());
}

TEST(Str, TrimRemovesWhiteSpaceAtTheSidesToldOnly) {
  const struct {
    string text;
    int mode;
    const char *expected;
  } rows[] = {{"\t\v a b \r\n", FR_TRIM_BOTH, "a b"},
              {" a ", FR_TRIM_START, "a "},
              {" a ", FR_TRIM_END, " a"},
              {" a ", 0, " a "},
              {"\x01 a\x01", FR_TRIM_BOTH, "\x01 a\x01"}};
  for (auto row : rows) EXPECT_STREQ(row.expected, fr_str_trim(row.text.data(), row.mode));
}

TEST(Str, ExplodeKeepsEmptyFieldsAndImplodeJoinsARange) {
  size_t count = 0;
  const std::unique_ptr<char *, call_to_release<fr_explode_free>> owner(
      fr_explode(":a::b:", ':', &count));
  char *const *fields = owner.get();
  ASSERT_EQ(5U, count);
  EXPECT_EQ((strings{"", "a", "", "b", ""}), strings(fields, fields + 5));
  EXPECT_EQ(nullptr, fields[5]);
  EXPECT_STREQ("a::b", c_string(fr_implode(fields, 1, 3, ':')).get());
  EXPECT_EQ(nullptr, fr_implode(fields, 2, 1, ':'));
}

TEST(Str, Base64IsStandardPaddedAndInOneLine) {
  const string large((3 << 20) + 1, '\0');  // beyond the size that is encoded at once
  const std::pair<string, string> rows[] = {
      {"", ""},
      {"fo", "Zm8="},
      {{"\0\xff\xfe", 3}, "AP/+"},
      {large, string((large.size() - 1) / 3 * 4, 'A') + "AA=="}};
  for (const auto &[data, expected] : rows) {
    EXPECT_EQ(expected, c_string(base64_enc_str(data.data(), data.size())).get());
  }
}

TEST(SafeStr, CountsNulBytesBeforeItsEnd) {
  const safestr_owner text(safestr_create("a\0b", 3));
  EXPECT_EQ(string("a\0b\0", 4), string(text.get(), safestr_length(text.get()) + 1));
}

TEST(Parseconfig, TakesEveryFormOfALine) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const struct {
    const char *content, *expected;
  } rows[] = {{"  KEY\t/srv/q  \r\n", "/srv/q"},
              {"KEY = /srv/q", "/srv/q"},
              {"KEY \"/srv/my q \"\n", "/srv/my q "},
              {"KEY = \"\"\n", ""},
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
    EXPECT_EQ(0, parseconfig(box.path("paths.conf").c_str(), entries, 1)) << row.content;
    EXPECT_EQ(row.expected, value) << row.content;
  }
  for (const char *unreadable : {"/nonexistent/paths.conf", "/"}) {
    EXPECT_EQ(-1, parseconfig(unreadable, entries, 1)) << unreadable;
  }
}

}  // namespace
