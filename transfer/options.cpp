// Parses the command line.
// In memory only; mistakes go to standard error.
#include "transfer/options.h"

#include <popt.h>

#include <string>

#include "common/popt_context.h"
#include "platform/base/number.h"
#include "platform/base/owner.h"

namespace {

constexpr char usage[] =
    "Usage: spoolcap-transfer [OPTION]\n"
    "Carries stored files between this node and the object store.\n"
    "\n"
    "Without an option it serves in the foreground until SIGTERM; SIGHUP reloads keys and\n"
    "configuration.\n"
    "\n"
    "  --status [--json]   what the running service does, waits for and has done\n"
    "  --check             tries configuration, folders, cache server and every location\n"
    "  --drain [SECONDS]   waits until nothing of this node is queued or running\n"
    "  --help              this text\n"
    "  --version           the version\n"
    "\n"
    "Status: 0 for success, 1 for a failure (with --check: something is wrong; with --drain: the\n"
    "time is over), 2 for a wrong command line or configuration.\n";

std::optional<transfer_options> refuse(const std::string &why) {
  std::fprintf(stderr, "spoolcap-transfer: %s\nTry `spoolcap-transfer --help`.\n", why.c_str());
  return std::nullopt;
}

// The values that poptGetNextOpt gives for each option.
// From 1 on, as popt takes 0 for an option that gives no value.
enum option_value { status_option = 1, check_option, drain_option, help_option, version_option };

transfer_task task_of(int option) {
  switch (option) {
    case status_option:
      return transfer_task::status;
    case check_option:
      return transfer_task::check;
    case drain_option:
      return transfer_task::drain;
    case help_option:
      return transfer_task::help;
    default:
      return transfer_task::version;
  }
}

}  // namespace

void print_usage(FILE *stream) {
  std::fputs(usage, stream);
}

std::optional<transfer_options> parse_options(int argc, const char **argv) {
  transfer_options found;
  int json = 0;
  const poptOption options[] = {
      {"status", '\0', POPT_ARG_NONE, nullptr, status_option, nullptr, nullptr},
      {"json", '\0', POPT_ARG_NONE, &json, 0, nullptr, nullptr},
      {"check", '\0', POPT_ARG_NONE, nullptr, check_option, nullptr, nullptr},
      {"drain", '\0', POPT_ARG_STRING | POPT_ARGFLAG_OPTIONAL, nullptr, drain_option, nullptr,
       nullptr},
      {"help", '\0', POPT_ARG_NONE, nullptr, help_option, nullptr, nullptr},
      {"version", '\0', POPT_ARG_NONE, nullptr, version_option, nullptr, nullptr},
      POPT_TABLEEND};
  const popt_context context(poptGetContext(nullptr, argc, argv, options, 0));
  if (!context) return refuse("out of memory");

  bool chosen = false;
  int option = 0;
  // popt handles options that only set a variable, as --json does, by itself.
  while ((option = poptGetNextOpt(context.get())) > 0) {
    if (chosen) return refuse("only one of the tasks can be done at a time");
    chosen = true;
    found.task = task_of(option);
    // Only --drain takes one; popt hands it over to be freed.
    const c_string argument(poptGetOptArg(context.get()));
    if (!argument) continue;
    found.seconds = whole_number<int>(argument.get());
    if (found.seconds.value_or(-1) < 0) {
      return refuse(std::string("not a number of seconds: ") + argument.get());
    }
  }
  // -1 is the end of the options, all below it errors.
  if (option != -1) {
    return refuse(std::string(poptBadOption(context.get(), 0)) + ": " + poptStrerror(option));
  }
  if (const char *rest = poptPeekArg(context.get())) {
    return refuse(std::string("unexpected argument: ") + rest);
  }
  found.json = json != 0;
  if (found.json && found.task != transfer_task::status) return refuse("--json goes with --status");
  return found;
}
