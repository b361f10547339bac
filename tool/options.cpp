// Parses the command line with popt, and checks that its options fit together.
// Fills `run`; ends the process when something is wrong with the command line.
#include "tool/options.h"

#include <popt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/popt_context.h"
#include "platform/base/owner.h"
#include "tool/settings.h"

namespace {

constexpr int help_option = 'H';

// Levels below a target that --force regenerates; more than the tree of accounts has.
constexpr int forced_depth = 10;

// The wording is fixed, its slips included: scripts and people know it.
constexpr char banner[] =
    "Quorvex spoolcap\n"
    "Command line tool that refreshes or inspects client quotas\n"
    "Usage:\n"
    "\tspoolcap --action|-A set|show --uid|-u <client_id> [, <client_id2> [, ...]] | --ulogin|-l "
    "<login> [, <login2> [, ...]] | --all|-a [--child|-c]  [--human|-h] [--quiet|-q]\n"
    "Valid options:\n"
    "\t--action|-A:  set  will refresh quotas and print them on stdout;\n"
    "\t\tshow  will inspect only and print them to stdout\n"
    "\t--uid|-u: User id from sql client.id. May be a list \"id1, id2..\"\n"
    "\t--ulogin|-l: User login from sql client.login. May be a list \"login1, login2\"\n"
    "\t--all|-a: All users from database (resellers, clients and extensions)\n"
    "\t--force|-f: Quota files are considered dirty and must be regenerated\n"
    "\t-u, -l, -a are mutually exclusive and at least one must be present\n"
    "\t--children|-c: Do the action on all the child objects too\n"
    "\t--human|-h: Print sizes in human readble form (KB, MB, GB etc)\n"
    "\t--quiet|-q: Print nothing on stdout. Invalid if -A show was requested\n";
// The text is fixed byte by byte; its length catches a slip of the hand.
static_assert(sizeof banner - 1 == 934);

[[noreturn]] void reject(const char *what) {
  std::printf("Bad command line. %s\n\n", what);
  usage(stdout);
  std::exit(1);
}

// The word must be whole and in lower case.
int action_of(const char *word) {
  if (word == nullptr) return ACTION_NONE;
  if (std::strcmp(word, "set") == 0) return ACTION_SET;
  if (std::strcmp(word, "show") == 0) return ACTION_SHOW;
  return ACTION_NONE;
}

// Takes the one way of naming targets that was used, or ends the process.
void choose_targets(bool all) {
  // No target option at all is no error here: the run then finds no targets and says so.
  const struct {
    bool given;
    int mode;
  } choices[] = {{all, TARGET_ALL},
                 {run.uid_list != nullptr, TARGET_UID},
                 {run.ulogin_list != nullptr, TARGET_ULOGIN}};
  bool conflict = false;
  for (const auto &choice : choices) {
    if (!choice.given) continue;
    if (run.target_mode != TARGET_NONE) {
      conflict = true;
    } else {
      run.target_mode = choice.mode;
    }
  }
  if (conflict) {
    reject("Target users must be specified using one and only one of --all|--uid|--ulogin");
  }
}

}  // namespace

void usage(FILE *stream) {
  std::fwrite(banner, 1, sizeof banner - 1, stream);
}

void parse_args(int argc, const char **argv) {
  char *action_word = nullptr;
  char *uid_list = nullptr;
  char *ulogin_list = nullptr;
  int all = 0;
  const poptOption options[] = {
      {"action", 'A', POPT_ARG_STRING, &action_word, 0, nullptr, nullptr},
      {"uid", 'u', POPT_ARG_STRING, &uid_list, 0, nullptr, nullptr},
      {"ulogin", 'l', POPT_ARG_STRING, &ulogin_list, 0, nullptr, nullptr},
      {"all", 'a', POPT_ARG_NONE, &all, 0, nullptr, nullptr},
      {"force", 'f', POPT_ARG_NONE, &run.force_depth, 0, nullptr, nullptr},
      {"children", 'c', POPT_ARG_NONE, &run.children_flag, 0, nullptr, nullptr},
      {"human", 'h', POPT_ARG_NONE, &run.human_flag, 0, nullptr, nullptr},
      {"quiet", 'q', POPT_ARG_NONE, &run.quiet_flag, 0, nullptr, nullptr},
      {"help", '\0', POPT_ARG_NONE, nullptr, help_option, nullptr, nullptr},
      POPT_TABLEEND};

  errno = 0;
  const popt_context context(poptGetContext(nullptr, argc, argv, options, 0));
  // Only --help has a value of its own, so this one call consumes every option.
  const int answer = poptGetNextOpt(context.get());
  const c_string word(action_word);
  run.uid_list.reset(uid_list);
  run.ulogin_list.reset(ulogin_list);
  // Short of memory, the parser passes over what it cannot copy, or ends the process by itself.
  if (!context || errno == ENOMEM) {
    std::fputs("Out of memory\n", stderr);
    std::exit(1);
  }
  if (answer == help_option) {
    usage(stdout);
    std::exit(0);
  }
  if (answer != -1) {
    std::printf("%s: %s\n", poptBadOption(context.get(), 0), poptStrerror(answer));
    std::exit(1);
  }

  run.action = action_of(word.get());
  if (run.action == ACTION_NONE) reject("Action invalid or missing");

  choose_targets(all != 0);
  if (run.action == ACTION_SHOW && run.quiet_flag != 0) {
    reject("--action show   and  --quiet  cannot be used together");
  }
  // popt has set 1 for the flag.
  if (run.force_depth != 0) run.force_depth = forced_depth;
}
