// The string helpers: slicing and joining, editing in place, letter case, ids, node, clock and
// folded mail headers of encoded words.
#include <spoolcap/zarn_str.h>

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "tests/support/sandbox.h"

namespace {

using std::string;
using strings = std::vector<string>;

TEST(ZarnStr, SliceBringsBoundsInsideTheText) {
  const struct {
    int start, end;
    const char *expected;
  } rows[] = {{-3, 2, "ab"},    {4, 99, "ef"},   {3, 3, ""},       {6, 99, ""},
              {7, 99, nullptr}, {4, 3, nullptr}, {-2, -1, nullptr}};
  for (const auto &row : rows) {
    const c_string slice(zarn_str_slice("abcdef", row.start, row.end));
    EXPECT_STREQ(slice.get(), row.expected) << row.start << ".." << row.end;
  }
}

strings taken(char **list) {
  strings elements;
  for (char **element = list; *element != nullptr; ++element) elements.emplace_back(*element);
  zarn_str_freelist(list);
  return elements;
}

TEST(ZarnStr, SplitKeepsEmptyFieldsButNoneAfterATrailingSeparator) {
  EXPECT_EQ(taken(zarn_str_split_char(",a,,b,", ',')), (strings{"", "a", "", "b"}));
  EXPECT_EQ(taken(zarn_str_split("a::b:::c", "::")), (strings{"a", "b", ":c"}));
  EXPECT_EQ(taken(zarn_str_split("", ",")), strings{});
  EXPECT_EQ(zarn_str_split("a", ""), nullptr);
}

TEST(ZarnStr, JoinPutsTheSeparatorBetweenElementsOnly) {
  char a[] = "a", empty[] = "", b[] = "b";
  char *const three[] = {a, empty, b, nullptr};
  EXPECT_STREQ(c_string(zarn_str_join(three, ", ")).get(), "a, , b");
  EXPECT_STREQ(c_string(zarn_str_join(three, nullptr)).get(), "ab");
  EXPECT_EQ(zarn_str_join(three + 3, ","), nullptr);
}

TEST(ZarnStr, AppendStartsAStringAndExtendsItWithItself) {
  char *text = nullptr;
  EXPECT_NE(zarn_str_append(&text, "%d-%s", 7, "x"), nullptr);
  EXPECT_EQ(zarn_str_append(&text, "/%s", text), text);
  EXPECT_STREQ(c_string(text).get(), "7-x/7-x");
}

TEST(ZarnStr, NullTextsGiveNothing) {
  char *none = nullptr;
  EXPECT_EQ(zarn_str_slice(nullptr, 0, 1), nullptr);
  EXPECT_EQ(zarn_str_split(nullptr, ","), nullptr);
  EXPECT_EQ(zarn_str_join(nullptr, ","), nullptr);
  for (char **text : {&none, static_cast<char **>(nullptr)}) {
    EXPECT_EQ(zarn_str_replace(text, "a", "b"), -1);
    EXPECT_EQ(zarn_str_trim(text, 3), -1);
    EXPECT_EQ(zarn_str_delete(text, 0, 1), -1);
    EXPECT_EQ(zarn_str_insert(text, 0, "a"), -1);
  }
}

// What an edit in place makes of a text, with "!" behind it where it failed.
string edited(const char *text, const auto &edit) {
  char *own = ::strdup(text);
  const int result = edit(&own);
  string left(c_string(own).get());
  return result == 0 ? left : left.append("!");
}

TEST(ZarnStrInPlace, ReplacesFromLeftToRightWithoutLookingAtItsOwnWork) {
  const struct {
    const char *text, *from, *to, *expected;
  } rows[] = {{"aaa", "aa", "b", "ba"}, {"a.b.c", ".", "..", "a..b..c"}, {"abab", "ab", "", ""},
              {"abc", "x", "y", "abc"}, {"a", nullptr, "b", "a!"},       {"a", "a", nullptr, "a!"},
              {"a", "", "b", "a!"}};
  for (const auto &row : rows) {
    const auto replace = [&](char **text) { return zarn_str_replace(text, row.from, row.to); };
    EXPECT_EQ(edited(row.text, replace), row.expected);
  }
}

TEST(ZarnStrInPlace, TrimStripsBytes1To32AtTheSidesOfItsMode) {
  const char *const expected[] = {"\t\x01\xa0x\x7f \n", "\xa0x\x7f \n", "\t\x01\xa0x\x7f",
                                  "\xa0x\x7f"};
  for (int mode = 0; mode < 4; ++mode) {
    const auto trim = [mode](char **text) { return zarn_str_trim(text, mode); };
    EXPECT_EQ(edited(expected[0], trim), expected[mode]) << mode;
  }
}

TEST(ZarnStrInPlace, DeleteStaysInsideTheText) {
  const struct {
    int pos, count;
    const char *expected;  // a deletion has no result that means anything
  } rows[] = {{2, 10, "ab!"},  {1, 2, "ad!"},    {0, 4, "!"},
              {5, 1, "abcd!"}, {-1, 1, "abcd!"}, {2, -1, "abcd!"}};
  for (const auto &row : rows) {
    const auto cut = [&row](char **text) { return zarn_str_delete(text, row.pos, row.count); };
    EXPECT_EQ(edited("abcd", cut), row.expected) << row.pos << "+" << row.count;
  }
}

TEST(ZarnStrInPlace, InsertStaysInsideTheText) {
  const std::pair<int, const char *> rows[] = {
      {-1, "ab!"}, {0, "xyab"}, {1, "axyb"}, {2, "abxy"}, {3, "ab!"}};
  for (const auto &[pos, expected] : rows) {
    const auto insert = [at = pos](char **text) { return zarn_str_insert(text, at, "xy"); };
    EXPECT_EQ(edited("ab", insert), expected) << pos;
  }
}

TEST(ZarnStr, CaseIsConvertedInAsciiLettersByMode) {
  const struct {
    string text;
    int mode;
    const char *expected;
  } rows[] = {{"az{`\xe4", ZARN_CASE_UPPER, "AZ{`\xe4"},
              {"AZ[@\xc4", ZARN_CASE_LOWER, "az[@\xc4"},
              {"aB", 3, "aB"},
              {"mcdonald o'neil", ZARN_CASE_NAME, "McDonald O'Neil"},
              {"smcx-aMC", ZARN_CASE_NAME, "SMcX-Amc"},
              {"-ab--b", ZARN_CASE_NAME, "-ab--b"}};
  for (auto row : rows) {
    EXPECT_EQ(zarn_str_convert(row.text.data(), row.mode), 0);
    EXPECT_EQ(row.text, row.expected);
  }
  EXPECT_STREQ(c_string(zarn_str_toupper("a1\xe4")).get(), "A1\xe4");
  EXPECT_STREQ(c_string(zarn_str_tolower("A1\xc4")).get(), "a1\xc4");
}

TEST(PadId, HasExactlyTheWidth) {
  const struct {
    int id;
    unsigned width;
    const char *expected;
  } rows[] = {{0, 4, "0000"},
              {9999, 4, "9999"},
              {12345, 4, "2345"},
              {10, 0, nullptr},
              {2147483647, 12, "002147483647"}};
  for (const auto &row : rows) {
    EXPECT_STREQ(c_string(ast_pad_id(row.id, row.width)).get(), row.expected);
  }
}

TEST(Utf8, LeadBytesTellTheCharactersLength) {
  const std::pair<unsigned char, int> rows[] = {{0x7f, 1}, {0x80, 1}, {0xbf, 1}, {0xc0, 2},
                                                {0xdf, 2}, {0xe0, 3}, {0xef, 3}, {0xf0, 4},
                                                {0xf7, 4}, {0xf8, 1}};
  for (const auto &[byte, length] : rows) {
    EXPECT_EQ(zarn_utf8_get_char_length(byte), length) << static_cast<int>(byte);
  }
}

TEST(NodeId, IsTheFirstLineWithoutItsTrailingBlanks) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const auto node_file = "etc/quorvexnode/nodeid";
  std::filesystem::remove(box.path(node_file));
  EXPECT_EQ(get_nodeid(), nullptr);
  box.write_file(node_file, "");
  EXPECT_EQ(get_nodeid(), nullptr);
  const string longest(1023, 'n');
  for (const auto &[content, expected] : {std::pair<string, string>(" n 2 \t\r\nother\n", " n 2"),
                                          {"\n", ""},
                                          {longest + "nn", longest}}) {
    box.write_file(node_file, content);
    EXPECT_EQ(c_string(get_nodeid()).get(), expected) << content;
  }
}

TEST(Clock, SleepsItsTimeThroughSignals) {
  static volatile sig_atomic_t alarms = 0;
  std::signal(SIGALRM, [](int) { alarms = alarms + 1; });
  const itimerval every_10_ms = {{0, 10000}, {0, 10000}};
  ::setitimer(ITIMER_REAL, &every_10_ms, nullptr);
  EXPECT_GE(support::seconds_of([] { EXPECT_EQ(zarn_sleep(0.25F), 0); }), 0.249);
  EXPECT_GE(alarms, 1);
  EXPECT_NEAR(qx_get_tstamp(), static_cast<double>(::time(nullptr)), 10);
  EXPECT_EQ(zarn_sleep(-0.5F), -1);
}

TEST(MailHeader, LaysOutTextsAndAddresses) {
  const string a70(70, 'a'), a71(71, 'a'), n60(60, 'N'), n61(61, 'N');
  string accents, code;  // 44 bytes fit behind a name of one letter, and no half of a character
  for (int i = 0; i < 23; ++i) accents += "\xc3\xa9";
  for (int i = 0; i < 7; ++i) code += "w6nDqcOp";
  const struct {
    string name;
    const char *text, *address;
    string expected;
  } rows[] = {
      {"N", "hi", "a@b", "N: =?UTF-8?B?aGk=?=\n  <a@b>\n"},
      {"N", "", "a@b", "N:  <a@b>\n"},
      {"N", "", "", "N:  <>\n"},
      {"N", "", nullptr, ""},
      {"N", "", a70.c_str(), "N:  <" + a70 + ">\n"},
      {"N", "", a71.c_str(), "N:   <" + a71 + ">\n"},
      {"N", accents.c_str(), nullptr, "N: =?UTF-8?B?" + code + "w6k=?=\n =?UTF-8?B?w6k=?=\n"},
      // A name that leaves 3 columns leaves no room for a group of bytes.
      {n60, "hi", nullptr, n60 + ": =?UTF-8?B?aGk=?=\n"},
      {n61, "hi", nullptr, n61 + ": =?UTF-8?B?\?=\n =?UTF-8?B?aGk=?=\n"}};
  for (const auto &row : rows) {
    const c_string header(
        zarn_base64_encode_email_header(row.name.c_str(), "UTF-8", row.text, row.address));
    EXPECT_EQ(header.get(), row.expected);
  }
  EXPECT_EQ(zarn_base64_encode_email_header("N", "C", nullptr, nullptr), nullptr);
}

}  // namespace
