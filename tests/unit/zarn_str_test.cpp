// The string helpers: slicing and joining, editing in place, letter case, ids, node and clock.
#include "zarn_str.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "base/owner.h"
#include "support/sandbox.h"

namespace {

using list_owner = std::unique_ptr<char *, call_to_release<zarn_str_freelist>>;
using strings = std::vector<std::string>;

strings elements(char *const *list) {
  strings result;
  for (; *list != nullptr; ++list) result.emplace_back(*list);
  return result;
}

// What a string that was changed in place has become.
std::string taken(char *str) {
  return c_string(str).get();
}

TEST(StrSlice, BringsBoundsInsideTheText) {
  const struct {
    int start, end;
    const char *expected;
  } rows[] = {
      {0, 6, "abcdef"}, {2, 4, "cd"}, {-3, 2, "ab"},    {4, 99, "ef"},   {3, 3, ""},
      {6, 6, ""},       {6, 99, ""},  {7, 99, nullptr}, {4, 3, nullptr}, {-2, -1, nullptr},
  };
  for (const auto &row : rows) {
    const c_string slice(zarn_str_slice("abcdef", row.start, row.end));
    EXPECT_STREQ(row.expected, slice.get()) << row.start << ".." << row.end;
  }
  EXPECT_EQ(nullptr, zarn_str_slice(nullptr, 0, 1));
}

TEST(StrSplit, KeepsEmptyFieldsButNoneAfterATrailingSeparator) {
  const struct {
    const char *text, *separator;
    strings expected;
  } rows[] = {
      {"a,,b,", ",", {"a", "", "b"}},
      {"", ",", {}},
      {",", ",", {""}},
      {"abc", ",", {"abc"}},
      {"a::b", "::", {"a", "b"}},
      {"a:::b", "::", {"a", ":b"}},
      {",,a", ",", {"", "", "a"}},
  };
  for (const auto &row : rows) {
    const list_owner list(zarn_str_split(row.text, row.separator));
    ASSERT_NE(nullptr, list) << row.text;
    EXPECT_EQ(row.expected, elements(list.get())) << row.text;
    if (std::strlen(row.separator) != 1) continue;
    const list_owner same(zarn_str_split_char(row.text, *row.separator));
    EXPECT_EQ(row.expected, elements(same.get())) << row.text;
  }
}

TEST(StrSplit, RejectsWhatCannotBeSplit) {
  EXPECT_EQ(nullptr, zarn_str_split(nullptr, ","));
  EXPECT_EQ(nullptr, zarn_str_split("a", nullptr));
  EXPECT_EQ(nullptr, zarn_str_split("a", ""));
  EXPECT_EQ(nullptr, zarn_str_split_char("a", '\0'));
  EXPECT_EQ(-1, zarn_str_freelist(nullptr));
}

TEST(StrJoin, PutsTheSeparatorBetweenElementsOnly) {
  const struct {
    strings list;
    const char *separator, *expected;
  } rows[] = {
      {{"a", "", "b"}, ", ", "a, , b"},
      {{"a", "b"}, nullptr, "ab"},
      {{"a", "b"}, "", "ab"},
      {{"a"}, ",", "a"},
      {{}, ",", nullptr},
  };
  for (const auto &row : rows) {
    std::vector<char *> list;
    for (const std::string &element : row.list) list.push_back(const_cast<char *>(element.c_str()));
    list.push_back(nullptr);
    const c_string joined(zarn_str_join(list.data(), row.separator));
    EXPECT_STREQ(row.expected, joined.get());
  }
  EXPECT_EQ(nullptr, zarn_str_join(nullptr, ","));
}

TEST(StrAppend, StartsAndExtendsAString) {
  char *text = nullptr;
  EXPECT_EQ(nullptr, zarn_str_append(nullptr, "x"));
  EXPECT_EQ(nullptr, zarn_str_append(&text, nullptr));
  EXPECT_NE(nullptr, zarn_str_append(&text, "%d-%s", 7, "x"));
  EXPECT_EQ(text, zarn_str_append(&text, "/%s", text));
  EXPECT_EQ("7-x/7-x", taken(text));
}

TEST(StrReplace, ReplacesFromLeftToRightWithoutLookingAtItsOwnWork) {
  const struct {
    const char *text, *from, *to, *expected;
  } rows[] = {
      {"aaa", "aa", "b", "ba"}, {"a.b.c", ".", "..", "a..b..c"},
      {"abab", "ab", "", ""},   {"abc", "x", "y", "abc"},
      {"", "x", "y", ""},
  };
  for (const auto &row : rows) {
    char *text = ::strdup(row.text);
    EXPECT_EQ(0, zarn_str_replace(&text, row.from, row.to)) << row.text;
    EXPECT_EQ(row.expected, taken(text)) << row.text;
  }
  char *none = nullptr;
  char letter[] = "a";
  char *text = letter;
  EXPECT_EQ(-1, zarn_str_replace(nullptr, "a", "b"));
  EXPECT_EQ(-1, zarn_str_replace(&none, "a", "b"));
  EXPECT_EQ(-1, zarn_str_replace(&text, nullptr, "b"));
  EXPECT_EQ(-1, zarn_str_replace(&text, "a", nullptr));
  EXPECT_EQ(-1, zarn_str_replace(&text, "", "b"));
}

TEST(StrTrim, StripsBytes1To32AtTheSidesTold) {
  const struct {
    const char *text;
    int mode;
    const char *expected;
  } rows[] = {
      {"\t x \n", 3, "x"},    {"\t x \n", 1, "x \n"},
      {"\t x \n", 2, "\t x"}, {" x ", 0, " x "},
      {"\x01x\x1f", 3, "x"},  {"\xa0x\x7f", 3, "\xa0x\x7f"},
      {" \n", 3, ""},         {"", 3, ""},
  };
  for (const auto &row : rows) {
    char *text = ::strdup(row.text);
    EXPECT_EQ(0, zarn_str_trim(&text, row.mode));
    EXPECT_EQ(row.expected, taken(text)) << row.text << row.mode;
  }
  char *none = nullptr;
  EXPECT_EQ(-1, zarn_str_trim(nullptr, 3));
  EXPECT_EQ(-1, zarn_str_trim(&none, 3));
}

TEST(StrDelete, RemovesWhatIsThereAndAlwaysReturnsMinusOne) {
  const struct {
    int pos, count;
    const char *expected;
  } rows[] = {
      {2, 10, "ab"},    {1, 2, "adef"},    {0, 6, ""},       {5, 1, "abcde"},   {6, 1, "abcdef"},
      {7, 1, "abcdef"}, {-1, 1, "abcdef"}, {2, 0, "abcdef"}, {2, -1, "abcdef"},
  };
  for (const auto &row : rows) {
    char *text = ::strdup("abcdef");
    EXPECT_EQ(-1, zarn_str_delete(&text, row.pos, row.count));
    EXPECT_EQ(row.expected, taken(text)) << row.pos << "+" << row.count;
  }
  EXPECT_EQ(-1, zarn_str_delete(nullptr, 0, 1));
}

TEST(StrInsert, TakesPositionsUpToTheLength) {
  const struct {
    int pos, result;
    const char *expected;
  } rows[] = {{0, 0, "xyab"}, {1, 0, "axyb"}, {2, 0, "abxy"}, {3, -1, "ab"}, {-1, -1, "ab"}};
  for (const auto &row : rows) {
    char *text = ::strdup("ab");
    EXPECT_EQ(row.result, zarn_str_insert(&text, row.pos, "xy")) << row.pos;
    EXPECT_EQ(row.expected, taken(text)) << row.pos;
  }
  char *none = nullptr;
  EXPECT_EQ(-1, zarn_str_insert(&none, 0, "x"));
  EXPECT_EQ(-1, zarn_str_insert(nullptr, 0, "x"));
}

TEST(StrCase, ConvertsAsciiLettersByMode) {
  const struct {
    int mode;
    const char *text, *expected;
  } rows[] = {
      {ZARN_CASE_UPPER, "az{`\xe4", "AZ{`\xe4"},
      {ZARN_CASE_LOWER, "AZ[@\xc4", "az[@\xc4"},
      {3, "aB", "aB"},
      {0, "aB", "aB"},
      {ZARN_CASE_NAME, "mcdonald o'neil", "McDonald O'Neil"},
      {ZARN_CASE_NAME, "o'neil mcdonald", "O'Neil Mcdonald"},
      {ZARN_CASE_NAME, "smcx", "SMcX"},
      {ZARN_CASE_NAME, "JOHN SMITH", "John Smith"},
      {ZARN_CASE_NAME, "MCA", "McA"},
      {ZARN_CASE_NAME, "mc", "Mc"},
      {ZARN_CASE_NAME, "amc", "Amc"},
      {ZARN_CASE_NAME, "a-", "A-"},
      {ZARN_CASE_NAME, "a--b", "A--b"},
      {ZARN_CASE_NAME, "-ab", "-ab"},
      {ZARN_CASE_NAME, "", ""},
  };
  for (const auto &row : rows) {
    std::string text = row.text;
    EXPECT_EQ(0, zarn_str_convert(text.data(), row.mode));
    EXPECT_EQ(row.expected, text) << row.text << " mode " << row.mode;
  }
  EXPECT_EQ(-1, zarn_str_convert(nullptr, ZARN_CASE_UPPER));
  EXPECT_STREQ("A1\xe4", c_string(zarn_str_toupper("a1\xe4")).get());
  EXPECT_STREQ("a1\xc4", c_string(zarn_str_tolower("A1\xc4")).get());
  EXPECT_EQ(nullptr, zarn_str_toupper(nullptr));
  EXPECT_EQ(nullptr, zarn_str_tolower(nullptr));
}

TEST(PadId, HasExactlyTheWidth) {
  const struct {
    int id;
    unsigned width;
    const char *expected;
  } rows[] = {{7, 4, "0007"},
              {0, 4, "0000"},
              {9999, 4, "9999"},
              {12345, 4, "2345"},
              {10, 1, "0"},
              {10, 0, nullptr},
              {2147483647, 12, "002147483647"}};
  for (const auto &row : rows) {
    EXPECT_STREQ(row.expected, c_string(ast_pad_id(row.id, row.width)).get()) << row.id;
  }
}

TEST(Utf8, LeadBytesTellTheCharactersLength) {
  const struct {
    unsigned char byte;
    int length;
  } rows[] = {{0, 1},    {0x7f, 1}, {0x80, 1}, {0xbf, 1}, {0xc0, 2}, {0xdf, 2},
              {0xe0, 3}, {0xef, 3}, {0xf0, 4}, {0xf7, 4}, {0xf8, 1}, {0xff, 1}};
  for (const auto &row : rows) {
    EXPECT_EQ(row.length, zarn_utf8_get_char_length(row.byte)) << static_cast<int>(row.byte);
  }
}

TEST(NodeId, IsTheFirstLineWithoutItsTrailingBlanks) {
  support::sandbox box({.use_database = false, .use_cache = false, .extra_lines = {}});
  const auto node_file = "etc/quorvexnode/nodeid";
  std::filesystem::remove(box.path(node_file));
  EXPECT_EQ(nullptr, get_nodeid());
  const struct {
    std::string content;
    const char *expected;
  } rows[] = {
      {"", nullptr}, {"n1\n", "n1"}, {" n 2 \t\r\nother\n", " n 2"},
      {"n3", "n3"},  {"\n", ""},     {"n\xe4\n", "n\xe4"},
  };
  for (const auto &row : rows) {
    box.write_file(node_file, row.content);
    EXPECT_STREQ(row.expected, c_string(get_nodeid()).get()) << row.content;
  }
  box.write_file(node_file, std::string(2000, 'n'));
  EXPECT_EQ(std::string(1023, 'n'), c_string(get_nodeid()).get());
}

volatile sig_atomic_t alarms = 0;

TEST(Sleep, LastsItsTimeThroughSignals) {
  struct sigaction action = {};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  ::sigaction(SIGALRM, &action, nullptr);
  const itimerval every_10_ms = {{0, 10000}, {0, 10000}};
  ::setitimer(ITIMER_REAL, &every_10_ms, nullptr);
  const double start = qx_get_tstamp();
  EXPECT_EQ(0, zarn_sleep(0.25F));
  EXPECT_GE(qx_get_tstamp() - start, 0.249);
  EXPECT_GE(alarms, 3);
}

TEST(Sleep, RefusesTimesThatAreNone) {
  EXPECT_EQ(-1, zarn_sleep(-1));
  EXPECT_EQ(-1, zarn_sleep(-0.5F));
  EXPECT_EQ(0, zarn_sleep(0));
}

TEST(Timestamp, IsTheTimeOfDayInFractionsOfSeconds) {
  const time_t before = ::time(nullptr);
  const double first = qx_get_tstamp();
  ASSERT_EQ(0, zarn_sleep(0.01F));
  const double second = qx_get_tstamp();
  EXPECT_GE(first, static_cast<double>(before) - 1);
  EXPECT_LE(second, static_cast<double>(::time(nullptr)) + 1);
  EXPECT_GT(second, first);
  EXPECT_LT(second - first, 5);
}

}  // namespace
