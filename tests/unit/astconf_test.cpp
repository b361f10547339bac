// The readers of Asterisk-style configuration files and their line helpers.
#include <gtest/gtest.h>

#include <spoolcap/utils.h>
#include "tests/support/sandbox.h"

namespace {

using std::string;

// The values of "spool" and "lib" in the file, as "a|b" with "-" for none: those of a section (""
// for any) by the reader of sections, or without `section` by the plain reader.
string values_in(const string &path, const char *section) {
  const char *const keys[] = {"spool", "lib", nullptr};
  char stale[] = "stale";
  safestr_t values[2] = {};
  if (section == nullptr) values[0] = values[1] = stale;
  const int result = section == nullptr
                         ? get_astconf_values(path.c_str(), keys, values, 2)
                         : get_astconf_section_values(
                               path.c_str(), *section == '\0' ? nullptr : section, keys, values);
  if (result != 0) return std::to_string(result);
  const safestr_owner spool(values[0]), lib(values[1]);
  return string(spool ? spool.get() : "-") + "|" + (lib ? lib.get() : "-");
}

TEST(Astconf, TakesTheValuesThatItsReaderAdmits) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const struct {
    const char *section, *content, *expected;
  } rows[] = {{"d", "spool => 1\n[e]\nspool => 2\n[d]\nlib => 3\n[e]\n[d]\nspool = 4\n", "4|3"},
              {"", "spool = /a\n[x]\nlib => /b\n", "/a|/b"},
              {"d", "#[d]\nspool => 1\n [d] ;\n#spool => 2\nspool =>\nlib=>x = [y]\n", "-|-"},
              {"", "spool => 1\n spool = 2 ; n\nspools = 3\nlib = a => b\n", "2 ; n|-"},
              {nullptr, "spool => /a\n[x]\n#lib=>/z\nlib=>/b \nlib = /c\n", "/a|/b"}};
  for (const auto &row : rows) {
    box.write_file("asterisk.conf", row.content);
    EXPECT_EQ(values_in(box.path("asterisk.conf"), row.section), row.expected) << row.content;
    EXPECT_EQ(values_in(box.path("absent"), row.section), "-1");
  }
}

TEST(Astconf, NullArgumentsAreFailures) {
  const char *const keys[] = {"spool", nullptr};
  safestr_t value = nullptr;
  EXPECT_EQ(get_astconf_section_values(nullptr, nullptr, keys, &value), -1);
  EXPECT_EQ(get_astconf_section_values("/dev/null", nullptr, nullptr, &value), -1);
  EXPECT_EQ(get_astconf_section_values("/dev/null", nullptr, keys, nullptr), -1);
  EXPECT_EQ(get_astconf_values(nullptr, keys, &value, 1), -1);
  EXPECT_EQ(get_astconf_values("/dev/null", nullptr, &value, 1), -1);
  EXPECT_EQ(get_astconf_values("/dev/null", keys, nullptr, 1), -1);
}

TEST(LineHelpers, BlankAndCommentLinesAreIgnorable) {
  const struct {
    const char *line, *comment;
    int expected;
  } rows[] = {{" \t\r\n", "#", 1}, {" # x", "#", 1},    {"x # y", "#", 0}, {"// x", "//", 1},
              {"/ x", "//", 0},    {"\xa0# x", "#", 0}, {nullptr, "#", 1}};
  for (const auto &row : rows) {
    EXPECT_EQ(is_ignorable(row.line, row.comment[0], row.comment[1]), row.expected)
        << testing::PrintToString(row.line);
  }
}

TEST(LineHelpers, AnInlineCommentBringsThePaddingBeforeIt) {
  EXPECT_STREQ(get_inline_comment("v \t // n", nullptr, 0, "//"), " \t // n");
  EXPECT_STREQ(get_inline_comment(nullptr, nullptr, 0, ";"), "");
  EXPECT_STREQ(get_inline_comment("value", nullptr, 0, nullptr), "");
}

TEST(LineHelpers, PaddingIsTheLeadingRunOfTheGivenBytes) {
  char text[8];
  EXPECT_STREQ(get_start_padding("--+x", text, 8, "+-"), "--+");
  EXPECT_STREQ(get_start_padding(nullptr, text, 8, nullptr), "");
  EXPECT_EQ(get_start_padding(" x", nullptr, 8, nullptr), nullptr);
}

}  // namespace
