// The command `list`: the accounts, chosen and ordered as the options say.
// Reads the platform; writes in the format that was asked for.
#include <limits>

#include "report/choice.h"
#include "report/command.h"
#include "report/json.h"
#include "report/options.h"
#include "report/output.h"
#include "report/separated.h"
#include "report/table.h"

namespace {

// The options that only this command has, as typed; null for what was not given.
struct {
  char *sort = nullptr;
  char *under = nullptr;
  char *over = nullptr;
  int tree = 0;
} only_here;

const poptOption options[] = {
    list_format_row,
    {"sort", 's', POPT_ARG_STRING, &only_here.sort, 0,
     "By used, percent, login, id or age; by default id, or used with --top", "KEY"},
    top_row("Only the first N accounts"),
    level_row,
    {"under", 'u', POPT_ARG_STRING, &only_here.under, 0, "Only this account and those below it",
     "ID"},
    {"over", '\0', POPT_ARG_STRING, &only_here.over, 0, "Only accounts above this part of a limit",
     "PERCENT"},
    kind_row,
    {"tree", 't', POPT_ARG_NONE, &only_here.tree, 0, "Children below their parents", nullptr},
    human_row,
    output_row,
    POPT_TABLEEND};

list_choice typed_choice() {
  list_choice choice;
  choice.kinds = typed_kinds();
  choice.levels = typed_levels();
  constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
  choice.under =
      static_cast<std::uint32_t>(number_option("--under", only_here.under, 1, most).value_or(0));
  choice.over = decimal_option("--over", only_here.over);
  choice.top = typed_top().value_or(0);
  choice.tree = only_here.tree != 0;
  // The first N of a tree would be parts of it without their parents.
  if (choice.tree && choice.top != 0) throw report_trouble("--top and --tree exclude each other");
  // With --top alone, the user means the largest.
  const sort_key otherwise = choice.top != 0 ? sort_key::used : sort_key::id;
  choice.sort = static_cast<sort_key>(choice_option("--sort", only_here.sort,
                                                    {"id", "login", "used", "percent", "age"},
                                                    static_cast<size_t>(otherwise)));
  return choice;
}

void write(FILE *stream, report_format format, const report_platform &platform,
           const list_choice &choice) {
  const std::vector<chosen_account> chosen = choose(platform, choice);
  const account_source accounts = [&](const auto &visit) {
    for (const chosen_account &one : chosen) visit(platform.accounts[one.place]);
  };
  switch (format) {
    case report_format::table:
      write_table(stream, platform, chosen, {choice.kinds, typed.human != 0, choice.tree});
      break;
    case report_format::json:
      write_document(stream, platform, accounts, choice.kinds);
      break;
    case report_format::jsonl:
      write_lines(stream, platform, accounts, choice.kinds);
      break;
    case report_format::csv:
      write_separated(stream, separated_format::csv, platform, accounts, choice.kinds);
      break;
    case report_format::tsv:
      write_separated(stream, separated_format::tsv, platform, accounts, choice.kinds);
      break;
  }
}

report_status run(const std::vector<std::string> &words) {
  take_no_words(words);
  // Options are read before the platform: a slip of the hand must not cost a minute.
  const list_choice choice = typed_choice();
  const report_format format = typed_format();
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
        "In a table, the limit is that of the kind with the highest percentage, or the first\n"
        "where no such figure is known.\n"
        "The state is the worst of the kinds: measured, updated (by so many quick updates),\n"
        "dirty, redo, missing, unreadable. The age is that of the oldest figure.\n",
    .options = options,
    .run = run,
};
