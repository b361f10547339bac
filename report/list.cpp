// The command `list`: the accounts, chosen and ordered as the options say.
#include <limits>

#include "report/choice.h"
#include "report/command.h"
#include "report/json.h"
#include "report/options.h"
#include "report/output.h"
#include "report/separated.h"
#include "report/table.h"

namespace {

// As typed; null for what was not given.
struct {
  char *format = nullptr;
  char *sort = nullptr;
  char *top = nullptr;
  char *level = nullptr;
  char *under = nullptr;
  char *over = nullptr;
  char *kind = nullptr;
  char *output = nullptr;
  int tree = 0;
  int human = 0;
} typed;

const poptOption options[] = {
    {"format", 'f', POPT_ARG_STRING, &typed.format, 0,
     "table (the default), json, jsonl, csv or tsv", "FORMAT"},
    {"sort", 's', POPT_ARG_STRING, &typed.sort, 0,
     "By used, percent, login, id or age; by default id, or used with --top", "KEY"},
    {"top", 'n', POPT_ARG_STRING, &typed.top, 0, "Only the first N accounts", "N"},
    {"level", 'l', POPT_ARG_STRING, &typed.level, 0,
     "Only these levels: reseller, client, user, or 10, 50, 100", "LEVEL,..."},
    {"under", 'u', POPT_ARG_STRING, &typed.under, 0, "Only this account and those below it", "ID"},
    {"over", '\0', POPT_ARG_STRING, &typed.over, 0, "Only accounts above this part of a limit",
     "PERCENT"},
    {"kind", 'k', POPT_ARG_STRING, &typed.kind, 0,
     "Only these kinds: fax, sound, recording, voicemail, music", "KIND,..."},
    {"tree", 't', POPT_ARG_NONE, &typed.tree, 0, "Children below their parents", nullptr},
    {"human", 'h', POPT_ARG_NONE, &typed.human, 0, "Sizes and ages with units, in a table",
     nullptr},
    {"output", 'o', POPT_ARG_STRING, &typed.output, 0, "Write to a file, whole or not at all",
     "FILE"},
    POPT_TABLEEND};

enum class list_format { table, json, jsonl, csv, tsv };

list_choice typed_choice() {
  list_choice choice;
  choice.kinds = kinds_option("--kind", typed.kind);
  choice.levels = levels_option("--level", typed.level);
  constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
  choice.under =
      static_cast<std::uint32_t>(number_option("--under", typed.under, 1, most).value_or(0));
  choice.over = decimal_option("--over", typed.over);
  choice.top = static_cast<size_t>(number_option("--top", typed.top, 1, most).value_or(0));
  choice.tree = typed.tree != 0;
  if (choice.tree && choice.top != 0) throw report_trouble("--top and --tree exclude each other");
  const sort_key otherwise = choice.top != 0 ? sort_key::used : sort_key::id;
  choice.sort = static_cast<sort_key>(choice_option("--sort", typed.sort,
                                                    {"id", "login", "used", "percent", "age"},
                                                    static_cast<size_t>(otherwise)));
  return choice;
}

list_format typed_format() {
  const auto format = static_cast<list_format>(
      choice_option("--format", typed.format, {"table", "json", "jsonl", "csv", "tsv"}, 0));
  if (typed.human != 0 && format != list_format::table) {
    throw report_trouble("--human is for tables only");
  }
  return format;
}

void write(FILE *stream, list_format format, const report_platform &platform,
           const list_choice &choice) {
  const std::vector<chosen_account> chosen = choose(platform, choice);
  const account_source accounts = [&](const auto &visit) {
    for (const chosen_account &one : chosen) visit(platform.accounts[one.place]);
  };
  switch (format) {
    case list_format::table:
      write_table(stream, platform, chosen, {choice.kinds, typed.human != 0, choice.tree});
      break;
    case list_format::json:
      write_document(stream, platform, accounts, choice.kinds);
      break;
    case list_format::jsonl:
      write_lines(stream, platform, accounts, choice.kinds);
      break;
    case list_format::csv:
      write_separated(stream, separated_format::csv, platform, accounts, choice.kinds);
      break;
    case list_format::tsv:
      write_separated(stream, separated_format::tsv, platform, accounts, choice.kinds);
      break;
  }
}

report_status run(const std::vector<std::string> &words) {
  take_no_words(words);
  const list_choice choice = typed_choice();
  const list_format format = typed_format();
  const report_platform platform = collect();
  report_output out(typed.output);
  write(out.stream(), format, platform, choice);
  out.commit();
  return REPORT_OK;
}

}  // namespace

const report_command list_command = {
    .name = "list",
    .arguments = "",
    .summary = "Lists accounts with what they use and may use",
    .details =
        "\n"
        "In a table, the limit is that of the kind that is used the most of it.\n"
        "The state is the worst of the kinds: measured, updated (by so many quick updates),\n"
        "dirty, redo, missing, unreadable. The age is that of the oldest figure.\n",
    .options = options,
    .run = run,
};
