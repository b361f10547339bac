// spoolcap-report: the figures for people and for monitoring. One command, one exit status.
// Finds the command and its options; whatever fails ends here, in one line.
#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include <spoolcap/sqlsession.h>
#include "common/popt_context.h"
#include "platform/base/owner.h"
#include "platform/base/utf8.h"
#include "report/command.h"
#include "report/output.h"
#include "report/table.h"

namespace {

// In the order of the help.
const report_command *const commands[] = {&list_command,  &metrics_command,  &page_command,
                                          &check_command, &snapshot_command, &diff_command};

constexpr int help_option = 'H';

const poptOption common_options[] = {
    {"help", '\0', POPT_ARG_NONE, nullptr, help_option, "Show this help and end", nullptr},
    POPT_TABLEEND};

const report_command *find_command(const char *name) {
  for (const report_command *command : commands) {
    if (std::strcmp(command->name, name) == 0) return command;
  }
  // Never taken for a word of `list`: a misspelt command must not print all accounts.
  throw report_trouble(std::string("No such command: ") + name + " (see --help)");
}

void print_help() {
  report_output out;
  std::fputs(
      "Usage: spoolcap-report [COMMAND] [options]\n"
      "Prints the storage quotas of accounts; changes nothing. Without a command: list.\n"
      "\n"
      "Commands:\n",
      out.stream());
  for (const report_command *command : commands) {
    const std::string call = fmt::format("{} {}", command->name, command->arguments);
    write_text(out.stream(), fmt::format("  {:18} {}\n", call, command->summary));
  }
  std::fputs(
      "\n"
      "The options of a command: spoolcap-report COMMAND --help\n"
      "Status: 0 done; 1 check found something; 2 bad input, or the report cannot be made.\n",
      out.stream());
  out.commit();
}

void print_help_of(const report_command &command, poptContext context) {
  report_output out;
  write_text(out.stream(), fmt::format("{}.\n{}\n", command.summary, command.details));
  poptSetOtherOptionHelp(context, (std::string("[options] ") + command.arguments).c_str());
  poptPrintHelp(context, out.stream(), 0);
  out.commit();
}

// Parses the words behind the command's name, which fills what the command reads, and runs it.
report_status run_command(const report_command &command, std::span<const char *> arguments) {
  // popt shows it in the help as the name of the program.
  const std::string name = std::string("spoolcap-report ") + command.name;
  std::vector<const char *> argv = {name.c_str()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  argv.push_back(nullptr);
  const bool has_options = command.options[0].longName != nullptr;
  const poptOption options[] = {
      {nullptr, '\0', POPT_ARG_INCLUDE_TABLE, const_cast<poptOption *>(command.options), 0,
       has_options ? "Options:" : nullptr, nullptr},
      {nullptr, '\0', POPT_ARG_INCLUDE_TABLE, const_cast<poptOption *>(common_options), 0,
       "Help:", nullptr},
      POPT_TABLEEND};
  const popt_context context(
      poptGetContext(nullptr, static_cast<int>(argv.size()) - 1, argv.data(), options, 0));
  if (!context) throw std::bad_alloc();
  // All options but --help store their values by themselves, so one call takes them all.
  const int answer = poptGetNextOpt(context.get());
  if (answer == help_option) {
    print_help_of(command, context.get());
    return REPORT_OK;
  }
  if (answer != -1) {
    throw report_trouble(std::string(poptBadOption(context.get(), 0)) + ": " +
                         poptStrerror(answer));
  }
  std::vector<std::string> words;
  while (const char *word = poptGetArg(context.get())) words.emplace_back(word);
  // It opens no connection yet; the help needs no database.
  qx_sql_pool_init();
  return command.run(words);
}

report_status run(std::span<const char *> arguments) {
  // Without a command it is `list`, but for a lone --help.
  if (arguments.empty() || arguments[0][0] == '-') {
    if (arguments.empty() || std::strcmp(arguments[0], "--help") != 0) {
      return run_command(list_command, arguments);
    }
    print_help();
    return REPORT_OK;
  }
  return run_command(*find_command(arguments[0]), arguments.subspan(1));
}

}  // namespace

int main(int argc, char **argv) {
  prepare_standard_streams();
  try {
    const std::span all(const_cast<const char **>(argv), static_cast<size_t>(argc));
    return run(all.subspan(argc > 0 ? 1 : 0));
  } catch (const std::bad_alloc &) {
    std::fputs("spoolcap-report: Out of memory\n", stderr);
  } catch (const std::exception &trouble) {
    // It may hold words as they were typed.
    std::fprintf(stderr, "spoolcap-report: %s\n", shown_login(valid_utf8(trouble.what())).c_str());
  }
  return REPORT_TROUBLE;
}
