// The command line: what is accepted, what is refused and how that is told. Nothing here may reach
// a file or a database, so the sandbox has neither.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/sandbox.h"

namespace {

using arguments = std::vector<std::string>;

const support::sandbox_options nothing = {.use_database = false, .use_cache = false};

constexpr char bad_action[] = "Bad command line. Action invalid or missing\n\n";
constexpr char bad_targets[] =
    "Bad command line. Target users must be specified using one and only one of "
    "--all|--uid|--ulogin\n\n";
constexpr char bad_quiet[] =
    "Bad command line. --action show   and  --quiet  cannot be used together\n\n";
constexpr char no_targets[] = "None of the requested users found in database.\n";

std::string printable(const arguments &line) {
  std::string all;
  for (const std::string &word : line) all += word + " ";
  return all;
}

class command_line : public testing::Test {
 protected:
  std::string banner() { return box.run_spoolcap({"--help"}).out; }

  support::sandbox box{nothing};
};

TEST_F(command_line, help_is_the_whole_banner_and_nothing_else) {
  const support::process_result help = box.run_spoolcap({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  EXPECT_EQ(help.out.size(), 934U);
  EXPECT_TRUE(help.out.starts_with("Quorvex spoolcap\nCommand line tool that refreshes"));
  EXPECT_NE(help.out.find("| --all|-a [--child|-c]  [--human|-h] [--quiet|-q]\nValid options:\n"
                          "\t--action|-A:  set  will"),
            std::string::npos);
  EXPECT_TRUE(help.out.ends_with("Invalid if -A show was requested\n"));
}

TEST_F(command_line, errors_go_to_standard_output_with_status_1) {
  const struct {
    arguments line;
    std::string out;
  } rows[] = {
      {{}, bad_action + banner()},
      {{"-h"}, bad_action + banner()},
      {{"--action", "SET", "--all"}, bad_action + banner()},
      {{"--action", "set", "--uid", "5", "--all"}, bad_targets + banner()},
      {{"--action", "set", "--uid", "5", "--ulogin", "'a'"}, bad_targets + banner()},
      {{"-A", "show", "-q"}, bad_quiet + banner()},
      {{"-A", "show", "-q", "-a", "-u", "1"}, bad_targets + banner()},
      {{"--nonsense"}, "--nonsense: unknown option\n"},
      {{"--act", "set"}, "--act: unknown option\n"},
      {{"--action", "set", "--uid"}, "--uid: missing argument\n"},
      {{"--bad", "--help"}, "--bad: unknown option\n"},
  };
  for (const auto &row : rows) {
    const support::process_result result = box.run_spoolcap(row.line);
    EXPECT_EQ(result.out, row.out) << printable(row.line);
    EXPECT_EQ(result.err, "") << printable(row.line);
    EXPECT_EQ(result.status, 1) << printable(row.line);
  }
}

TEST_F(command_line, help_ends_the_run_whatever_follows_it) {
  EXPECT_EQ(box.run_spoolcap({"-A", "wrong", "--help", "--nonsense"}).status, 0);
}

TEST_F(command_line, no_target_and_no_database_are_the_same_to_the_caller) {
  for (const arguments &line : {arguments{"--action", "set"}, arguments{"-A", "show", "-a"},
                                arguments{"-A", "set", "-q", "-u", "1"}}) {
    const support::process_result result = box.run_spoolcap(line);
    EXPECT_EQ(result.out, "") << printable(line);
    EXPECT_EQ(result.err, no_targets) << printable(line);
    EXPECT_EQ(result.status, 10) << printable(line);
  }
}

}  // namespace
