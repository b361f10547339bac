// The readers of Asterisk-style configuration files and their line helpers.
#include <gtest/gtest.h>

#include <spoolcap/utils.h>
#include "tests/support/sandbox.h"

namespace {

using std::string;

// The values of "spool" and "lib" in the file, as "a|b" with "-" for none: those of a section (""
// for any) by the reader of sections, or without `section` by the plain reader.
string values_in(const char *path, const char *section) {
  const char *const keys[] = {"spool", "lib", nullptr};
  char stale[] = "stale";
  safestr_t values[2] = {};
  if (section == nullptr) values[0] = values[1] = stale;
  const int result =
      section == nullptr
          ? get_astconf_values(path, keys, values, 2)
          : get_astconf_section_values(path, *section == '\0' ? nullptr : section, keys, values);
  if (result != 0) return std::to_string(result);
  const safestr_owner spool(values[0]), lib(values[1]);
  return string(spool ? spool.get() : "-") + "|" + (lib ? lib.get() : "-");
}

TEST(Astconf, TakesTheValuesThatItsReaderAdmits) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const string long_value(100'000, 'v');
  const string rest(1016, 'v');  // of a piece, after "lib => "
  const struct {
    const char *section;
    string content, expected;
  } rows[] = {{"d", " \t[d](!) ; x\n  spool  =>  /a b ; old \r\nlib=/b", "/a b ; old|/b"},
              {"d", "spool => 1\n[e]\nspool => 2\n[d]\nlib => 3\n[e]\n[d]\nspool => 4\n", "4|3"},
              {"d", "[d]\nspool => /a\nspool => /b\nspool =>\nspool => \nSPOOL => /c\n", "/b|-"},
              {"d", "[d]\n# spool => /a\n  #lib => /b\n;lib => /c\nlib = ;/d\n", "-|;/d"},
              // A value with brackets is taken for a header.
              {"d", "[d]\nspool => [x]\nlib => /b\n", "-|-"},
              {"d", "[d]\nspool => a[d]\nlib => b]\n", "a[d]|b]"},
              {"d", "[d]\nspool=lib=>/a\nlib = a=b\n", "-|a=b"},
              {"d", "[d] => x\nspool==>x\nlib => => y\n", "-|=> y"},
              {"d", "[d]\nspool => " + long_value, long_value + "|-"},
              {"", "spool = /a\n[x]\nlib => /b\n", "/a|/b"},
              {nullptr, "spool => /a\n[x]\n lib=>/b \nspool => /c\n#lib => /d\n", "/c|/b"},
              {nullptr, "spool = x => /a\nspool = /a\nlib =>\n", "-|-"},
              // The plain reader takes a line in pieces of 1023 bytes.
              {nullptr, string(1023, 'x') + "lib => [b]\n", "-|[b]"},
              {nullptr, string(1022, 'x') + "lib => /b\n", "-|-"},
              {nullptr, "lib => " + rest + "spool => /a\n", "/a|" + rest}};
  for (const auto &row : rows) {
    box.write_file("asterisk.conf", row.content);
    EXPECT_EQ(row.expected, values_in(box.path("asterisk.conf").c_str(), row.section))
        << row.content;
    EXPECT_EQ("-1", values_in(box.path("absent").c_str(), row.section));
    EXPECT_EQ("-1", values_in(nullptr, row.section));
  }
  const string there = box.path("asterisk.conf");
  const char *const keys[] = {"spool", nullptr};
  safestr_t value = nullptr;
  EXPECT_EQ(-1, get_astconf_section_values(there.c_str(), nullptr, nullptr, &value));
  EXPECT_EQ(-1, get_astconf_section_values(there.c_str(), nullptr, keys, nullptr));
  EXPECT_EQ(-1, get_astconf_values(there.c_str(), nullptr, &value, 1));
  EXPECT_EQ(-1, get_astconf_values(there.c_str(), keys, nullptr, 1));
}

TEST(LineHelpers, BlankAndCommentLinesAreIgnorable) {
  const struct {
    const char *line, *comment;
    int expected;
  } rows[] = {{" \t\r\n", "#", 1}, {" # x", "#", 1}, {"x # y", "#", 0},   {"; x", "#", 0},
              {"// x", "//", 1},   {"/ x", "//", 0}, {"\xa0# x", "#", 0}, {"", "#", 1}};
  for (const auto &row : rows) {
    EXPECT_EQ(row.expected, is_ignorable(row.line, row.comment[0], row.comment[1])) << row.line;
  }
  EXPECT_EQ(1, is_ignorable(nullptr, '#', 0));
}

TEST(LineHelpers, InlineCommentsAndPaddingAreCutToTheirDestination) {
  const struct {
    const char *line, *marker, *expected;
  } rows[] = {
      {"value ;a;b", ";", " ;a;b"},   {";note", ";", ";note"}, {"v \t // n", "//", " \t // n"},
      {" \t ;note", ";", "\t ;note"}, {"value", ";", ""},      {nullptr, ";", ""},
      {"value", nullptr, ""}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.line));
    char comment[32] = "filled";
    EXPECT_STREQ(row.expected, get_inline_comment(row.line, nullptr, 0, row.marker));
    EXPECT_STREQ(row.expected, get_inline_comment(row.line, comment, 32, row.marker));
  }
  char text[] = "????????";
  EXPECT_EQ(" ;no?", string(get_inline_comment("x ;note", text, 4, ";"), 5));
  EXPECT_STREQ("\t ", get_start_padding("\t  x", text, 3, nullptr));
  EXPECT_STREQ("--+", get_start_padding("--+x", text, 8, "+-"));
  EXPECT_STREQ("", get_start_padding(nullptr, text, 8, nullptr));
  EXPECT_EQ(nullptr, get_start_padding(" x", nullptr, 8, nullptr));
}

}  // namespace
