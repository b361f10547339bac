// The readers of Asterisk-style configuration files and their line helpers.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "base/owner.h"
#include "support/sandbox.h"
#include "utils.h"

namespace {

using std::string;
using safestr_owner = std::unique_ptr<char, call_to_release<safestr_free>>;

class Astconf : public testing::Test {
 protected:
  string file(const string &content) {
    box.write_file("asterisk.conf", content);
    return box.path("asterisk.conf");
  }

  support::sandbox box{{.use_database = false, .use_cache = false, .extra_lines = {}}};
};

const char *const keys[] = {"spool", "lib", nullptr};

TEST_F(Astconf, SectionValuesAreThoseOfTheWantedSection) {
  const struct {
    const char *section, *content, *spool, *lib;
  } rows[] = {
      {"d", "[d]\nspool => /a\nlib=/b\n", "/a", "/b"},
      {"d", " \t[d](!) ; x\n  spool  =>  /a b ; old \r\n", "/a b ; old", nullptr},
      {"d", "spool => /a\n[e]\nspool => /b\n", nullptr, nullptr},
      {"d", "[d]\nspool => /a\n[e]\nspool => /b\n[d]\nlib => /c\n", "/a", "/c"},
      {"d", "[d]\nspool => /a\nspool => /b\nspool =>\nspool => \n", "/b", nullptr},
      {"d", "[d]\n# spool => /a\n  #lib => /b\n;lib => /c\nlib = ;/d\n", nullptr, ";/d"},
      // A value with brackets is taken for a header.
      {"d", "[d]\nspool => [x]\nlib => /b\n", nullptr, nullptr},
      {"d", "[d]\nspool => a[d]\nlib => /b\n", "a[d]", "/b"},
      {"d", "[d]\nspool => a[\nlib => b]\n", "a[", "b]"},
      {"d", "[d]\nspool=lib=>/a\nlib = a=b\nSPOOL => /c\n", nullptr, "a=b"},
      {"d", "[d]\nspool==>x\nlib => => y\n", nullptr, "=> y"},
      {"d", "[d] => x\nlib => y", nullptr, "y"},
      {nullptr, "spool = /a\n[x]\nlib => /b\n", "/a", "/b"},
      {nullptr, "", nullptr, nullptr},
  };
  for (const auto &row : rows) {
    safestr_t values[2] = {};
    EXPECT_EQ(0, get_astconf_section_values(file(row.content).c_str(), row.section, keys, values));
    const safestr_owner owners[] = {safestr_owner(values[0]), safestr_owner(values[1])};
    EXPECT_STREQ(row.spool, values[0]) << row.content;
    EXPECT_STREQ(row.lib, values[1]) << row.content;
  }
}

TEST_F(Astconf, SectionValuesTakeLinesOfAnyLength) {
  const string value(100'000, 'v');
  safestr_t values[2] = {};
  const string path = file("[d]\nspool => " + value + "\n");
  EXPECT_EQ(0, get_astconf_section_values(path.c_str(), "d", keys, values));
  const safestr_owner owner(values[0]);
  EXPECT_EQ(value, values[0]);
  EXPECT_EQ(value.size(), safestr_length(values[0]));
}

TEST_F(Astconf, PlainValuesNeedTheArrowAndKnowNoSections) {
  const string full(1016, 'v');  // fills the rest of a piece after "lib => "
  const struct {
    string content;
    const char *spool, *lib;
  } rows[] = {
      {"spool => /a\n[x]\n lib=>/b \n", "/a", "/b"},
      {"spool = /a\nlib =>\n", nullptr, nullptr},
      {"spool => /a\nspool => /b\n#lib => /c\n", "/b", nullptr},
      {"spool = x => /a\nlib => [x]\n", nullptr, "[x]"},
      // A line is taken in pieces of 1023 bytes.
      {string(1023, 'x') + "lib => /b\n", nullptr, "/b"},
      {string(1022, 'x') + "lib => /b\n", nullptr, nullptr},
      {"lib => " + full + "spool => /a\n", "/a", full.c_str()},
  };
  for (const auto &row : rows) {
    char stale[] = "stale";
    safestr_t values[2] = {stale, stale};
    EXPECT_EQ(0, get_astconf_values(file(row.content).c_str(), keys, values, 2));
    const safestr_owner owners[] = {safestr_owner(values[0]), safestr_owner(values[1])};
    EXPECT_STREQ(row.spool, values[0]) << row.content;
    EXPECT_STREQ(row.lib, values[1]) << row.content;
  }
}

TEST_F(Astconf, OnlyAnUnreadableFileIsAFailure) {
  safestr_t values[2] = {};
  const string absent = box.path("absent.conf");
  EXPECT_EQ(-1, get_astconf_section_values(absent.c_str(), "d", keys, values));
  EXPECT_EQ(-1, get_astconf_values(absent.c_str(), keys, values, 2));
}

TEST(LineHelpers, BlankAndCommentLinesAreIgnorable) {
  const struct {
    const char *line;
    char c1, c2;
    int expected;
  } rows[] = {
      {"", '#', 0, 1},      {" \t\r\n", '#', 0, 1}, {"  # x", '#', 0, 1},
      {"x # y", '#', 0, 0}, {"; x", '#', 0, 0},     {"// x", '/', '/', 1},
      {"/ x", '/', '/', 0}, {"/", '/', '/', 0},     {"\xa0# x", '#', 0, 0},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.expected, is_ignorable(row.line, row.c1, row.c2)) << row.line;
  }
}

TEST(LineHelpers, StartPaddingIsCutToItsDestination) {
  const struct {
    const char *line;
    size_t size;
    const char *chars, *expected;
  } rows[] = {
      {"\t  x", 3, nullptr, "\t "}, {"\t  x", 4, nullptr, "\t  "}, {"\t  x", 1, nullptr, ""},
      {"x ", 8, nullptr, ""},       {"--+x", 8, "+-", "--+"},      {" \nx", 8, nullptr, " "},
  };
  for (const auto &row : rows) {
    char padding[] = "?????????";
    EXPECT_EQ(padding, get_start_padding(row.line, padding, row.size, row.chars));
    EXPECT_STREQ(row.expected, padding) << row.line;
    EXPECT_EQ('?', padding[row.size]) << row.line;
  }
}

TEST(LineHelpers, InlineCommentsComeWithThePaddingBeforeThem) {
  const struct {
    const char *line, *marker, *expected;
  } rows[] = {
      {"value ;note", ";", " ;note"},  {"value;a;b", ";", ";a;b"}, {";note", ";", ";note"},
      {"v \t // n", "//", " \t // n"}, {"value", ";", ""},         {" \t ;note", ";", "\t ;note"},
      {" ;note", ";", ";note"},        {"a ;", ";", " ;"},
  };
  for (const auto &row : rows) {
    EXPECT_STREQ(row.expected, get_inline_comment(row.line, nullptr, 0, row.marker)) << row.line;
    char comment[32] = "filled";
    EXPECT_EQ(comment, get_inline_comment(row.line, comment, sizeof comment, row.marker));
    EXPECT_STREQ(row.expected, comment) << row.line;
  }
  char tight[] = "????????";
  get_inline_comment("x ;note", tight, 4, ";");
  EXPECT_STREQ(" ;no????", tight);
}

}  // namespace
