// The string helpers: slicing and joining, editing in place, letter case, ids, node and clock.
#include <spoolcap/zarn_str.h>

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "tests/support/sandbox.h"

namespace {

using std::string;
using strings = std::vector<string>;

TEST(Str, SliceBringsBoundsInsideTheText) {
  const struct {
    int start, end;
    const char *expected;
  } rows[] = {{0, 6, "abcdef"}, {-3, 2, "ab"},    {4, 99, "ef"},   {3, 3, ""},
              {6, 99, ""},      {7, 99, nullptr}, {4, 3, nullptr}, {-2, -1, nullptr}};
  for (const auto &row : rows) {
    const c_string slice(zarn_str_slice("abcdef", row.start, row.end));
    EXPECT_STREQ(row.expected, slice.get()) << row.start << ".." << row.end;
  }
  EXPECT_EQ(nullptr, zarn_str_slice(nullptr, 0, 1));
}

strings taken(char **list) {
  strings elements;
  for (char **element = list; *element != nullptr; ++element) elements.emplace_back(*element);
  zarn_str_freelist(list);
  return elements;
}

TEST(Str, SplitKeepsEmptyFieldsButNoneAfterATrailingSeparator) {
  EXPECT_EQ((strings{"", "a", "", "b"}), taken(zarn_str_split_char(",a,,b,", ',')));
  EXPECT_EQ((strings{"a", "b", ":c"}), taken(zarn_str_split("a::b:::c", "::")));
  EXPECT_EQ(strings{}, taken(zarn_str_split("", ",")));
  EXPECT_EQ(nullptr, zarn_str_split("a", ""));
  EXPECT_EQ(nullptr, zarn_str_split(nullptr, ","));
}

TEST(Str, JoinPutsTheSeparatorBetweenElementsOnly) {
  char a[] = "a", empty[] = "", b[] = "b";
  char *const three[] = {a, empty, b, nullptr};
  EXPECT_STREQ("a, , b", c_string(zarn_str_join(three, ", ")).get());
  EXPECT_STREQ("ab", c_string(zarn_str_join(three, nullptr)).get());
  EXPECT_EQ(nullptr, zarn_str_join(three + 3, ","));
  EXPECT_EQ(nullptr, zarn_str_join(nullptr, ","));
}

TEST(Str, AppendStartsAStringAndExtendsItWithItself) {
  char *text = nullptr;
  EXPECT_NE(nullptr, zarn_str_append(&text, "%d-%s", 7, "x"));
  EXPECT_EQ(text, zarn_str_append(&text, "/%s", text));
  EXPECT_STREQ("7-x/7-x", c_string(text).get());
}

// What an edit in place makes of a text, with "!" behind it where it failed.
string edited(const char *text, const auto &edit) {
  char *own = ::strdup(text), *none = nullptr;
  const int result = edit(&own);
  EXPECT_EQ(-1, edit(&none));
  EXPECT_EQ(-1, edit(nullptr));
  string left(c_string(own).get());
  return result == 0 ? left : left.append("!");
}

TEST(StrInPlace, ReplacesFromLeftToRightWithoutLookingAtItsOwnWork) {
  const struct {
    const char *text, *from, *to, *expected;
  } rows[] = {{"aaa", "aa", "b", "ba"}, {"a.b.c", ".", "..", "a..b..c"}, {"abab", "ab", "", ""},
              {"abc", "x", "y", "abc"}, {"a", nullptr, "b", "a!"},       {"a", "a", nullptr, "a!"},
              {"a", "", "b", "a!"}};
  for (const auto &row : rows) {
    const auto replace = [&](char **text) { return zarn_str_replace(text, row.from, row.to); };
    EXPECT_EQ(row.expected, edited(row.text, replace));
  }
}

TEST(StrInPlace, TrimStripsBytes1To32AtTheSidesTold) {
  const char *const expected[] = {"\t\x01\xa0x\x7f \n", "\xa0x\x7f \n", "\t\x01\xa0x\x7f",
                                  "\xa0x\x7f"};
  for (int mode = 0; mode < 4; ++mode) {
    const auto trim = [mode](char **text) { return zarn_str_trim(text, mode); };
    EXPECT_EQ(expected[mode], edited(expected[0], trim)) << mode;
  }
}

TEST(StrInPlace, DeleteAndInsertKeepInsideTheText) {
  const struct {
    int pos, count;
    const char *expected;  // a deletion has no result that means anything
  } rows[] = {{2, 10, "ab!"},  {1, 2, "ad!"},    {0, 4, "!"},     {4, 1, "abcd!"},
              {5, 1, "abcd!"}, {-1, 1, "abcd!"}, {2, -1, "abcd!"}};
  for (const auto &row : rows) {
    const auto cut = [&row](char **text) { return zarn_str_delete(text, row.pos, row.count); };
    EXPECT_EQ(row.expected, edited("abcd", cut)) << row.pos << "+" << row.count;
  }
  const char *const inserted[] = {"ab!", "xyab", "axyb", "abxy", "ab!"};
  for (int pos = -1; pos <= 3; ++pos) {
    const auto insert = [pos](char **text) { return zarn_str_insert(text, pos, "xy"); };
    EXPECT_EQ(inserted[pos + 1], edited("ab", insert)) << pos;
  }
}

TEST(Str, CaseIsConvertedInAsciiLettersByMode) {
  const struct {
    string text;
    int mode;
    const char *expected;
  } rows[] = {{"az{`\xe4", ZARN_CASE_UPPER, "AZ{`\xe4"},
              {"AZ[@\xc4", ZARN_CASE_LOWER, "az[@\xc4"},
              {"aB", 3, "aB"},
              {"mcdonald o'neil", ZARN_CASE_NAME, "McDonald O'Neil"},
              {"JOHN SMITH", ZARN_CASE_NAME, "John Smith"},
              {"smcx-amc", ZARN_CASE_NAME, "SMcX-Amc"},
              {"a--b", ZARN_CASE_NAME, "A--b"},
              {"-ab", ZARN_CASE_NAME, "-ab"}};
  for (auto row : rows) {
    EXPECT_EQ(0, zarn_str_convert(row.text.data(), row.mode));
    EXPECT_EQ(row.expected, row.text);
  }
  EXPECT_STREQ("A1\xe4", c_string(zarn_str_toupper("a1\xe4")).get());
  EXPECT_STREQ("a1\xc4", c_string(zarn_str_tolower("A1\xc4")).get());
}

TEST(PadId, HasExactlyTheWidth) {
  const struct {
    int id;
    unsigned width;
    const char *expected;
  } rows[] = {{7, 4, "0007"},     {0, 4, "0000"},   {9999, 4, "9999"},
              {12345, 4, "2345"}, {10, 0, nullptr}, {2147483647, 12, "002147483647"}};
  for (const auto &row : rows) {
    EXPECT_STREQ(row.expected, c_string(ast_pad_id(row.id, row.width)).get());
  }
}

TEST(Utf8, LeadBytesTellTheCharactersLength) {
  string lengths;
  for (const int byte : {0x7f, 0x80, 0xbf, 0xc0, 0xdf, 0xe0, 0xef, 0xf0, 0xf7, 0xf8}) {
    lengths += std::to_string(zarn_utf8_get_char_length(static_cast<unsigned char>(byte)));
  }
  EXPECT_EQ("1112233441", lengths);
}

TEST(NodeId, IsTheFirstLineWithoutItsTrailingBlanks) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const auto node_file = "etc/quorvexnode/nodeid";
  std::filesystem::remove(box.path(node_file));
  EXPECT_EQ(nullptr, get_nodeid());
  box.write_file(node_file, "");
  EXPECT_EQ(nullptr, get_nodeid());
  const string longest(1023, 'n');
  for (const auto &[content, expected] : {std::pair<string, string>(" n 2 \t\r\nother\n", " n 2"),
                                          {"\n", ""},
                                          {longest + "nn", longest}}) {
    box.write_file(node_file, content);
    EXPECT_EQ(expected, c_string(get_nodeid()).get()) << content;
  }
}

TEST(Clock, SleepsItsTimeThroughSignals) {
  static volatile sig_atomic_t alarms = 0;
  std::signal(SIGALRM, [](int) { alarms = alarms + 1; });
  const itimerval every_10_ms = {{0, 10000}, {0, 10000}};
  ::setitimer(ITIMER_REAL, &every_10_ms, nullptr);
  const double start = qx_get_tstamp();
  EXPECT_EQ(0, zarn_sleep(0.25F));
  EXPECT_GE(qx_get_tstamp() - start, 0.249);
  EXPECT_GE(alarms, 3);
  EXPECT_NEAR(start, static_cast<double>(::time(nullptr)), 10);
  for (const float never : {-1.0F, -0.5F}) EXPECT_EQ(-1, zarn_sleep(never)) << never;
}

}  // namespace
