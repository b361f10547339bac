// The command line: what is accepted, what is refused and what the user sees. Nothing here may
// reach a file or a database, so the sandbox has neither.
#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

namespace {

using arguments = std::vector<std::string>;

const support::sandbox_options nothing = {.use_database = false, .use_cache = false};

constexpr char bad_action[] = "Bad command line. Action invalid or missing\n\n";
constexpr char bad_targets[] =
    "Bad command line. Target users must be specified using one and only one of "
    "--all|--uid|--ulogin\n\n";
constexpr char bad_quiet[] =
    "Bad command line. --action show   and  --quiet  cannot be used together\n\n";

class CommandLine : public testing::Test {
 protected:
  std::string banner() { return box.run_spoolcap({"--help"}).out; }

  support::sandbox box{nothing};
};

TEST_F(CommandLine, HelpIsTheWholeBanner) {
  const support::process_result help = box.run_spoolcap({"-A", "wrong", "--help", "--nonsense"});
  EXPECT_EQ(help.status, 0) << "whatever stands around it";
  EXPECT_EQ(help.err, "");
  EXPECT_EQ(help.out.size(), 934U);
  EXPECT_TRUE(help.out.starts_with("Quorvex spoolcap\nCommand line tool that refreshes"));
  EXPECT_NE(help.out.find("| --all|-a [--child|-c]  [--human|-h] [--quiet|-q]\nValid options:\n"
                          "\t--action|-A:  set  will"),
            std::string::npos);
  EXPECT_TRUE(help.out.ends_with("Invalid if -A show was requested\n"));
}

TEST_F(CommandLine, ErrorsGoToStandardOutputWithStatus1) {
  const struct {
    arguments line;
    std::string out;
  } rows[] = {{{}, bad_action + banner()},
              {{"--action", "SET", "--all"}, bad_action + banner()},
              {{"--action", "set", "--uid", "5", "--all"}, bad_targets + banner()},
              {{"--action", "set", "--uid", "5", "--ulogin", "'a'"}, bad_targets + banner()},
              {{"-A", "show", "-q"}, bad_quiet + banner()},
              {{"-A", "show", "-q", "-a", "-u", "1"}, bad_targets + banner()},
              {{"--nonsense"}, "--nonsense: unknown option\n"},
              {{"--act", "set"}, "--act: unknown option\n"},
              {{"--action", "set", "--uid"}, "--uid: missing argument\n"},
              {{"--bad", "--help"}, "--bad: unknown option\n"}};
  for (const auto &row : rows) {
    const support::process_result result = box.run_spoolcap(row.line);
    EXPECT_EQ(result.out, row.out) << testing::PrintToString(row.line);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 1);
  }
}

}  // namespace
