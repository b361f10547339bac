// The command `diff`: what changed between snapshots, or between a snapshot and now.
#include <algorithm>
#include <limits>

#include "report/change_list.h"
#include "report/command.h"
#include "report/options.h"
#include "report/output.h"
#include "report/snapshot.h"

namespace {

// As typed; null for what was not given.
struct {
  char *format = nullptr;
  char *kind = nullptr;
  char *level = nullptr;
  char *top = nullptr;
  char *output = nullptr;
  int human = 0;
} typed;

const poptOption options[] = {
    {"format", 'f', POPT_ARG_STRING, &typed.format, 0, "table (the default), json, csv or tsv",
     "FORMAT"},
    {"kind", 'k', POPT_ARG_STRING, &typed.kind, 0,
     "Only these kinds: fax, sound, recording, voicemail, music", "KIND,..."},
    {"level", 'l', POPT_ARG_STRING, &typed.level, 0,
     "Only these levels: reseller, client, user, or 10, 50, 100", "LEVEL,..."},
    {"top", 'n', POPT_ARG_STRING, &typed.top, 0, "Only the first N changes", "N"},
    {"human", 'h', POPT_ARG_NONE, &typed.human, 0, "Sizes with units, in a table", nullptr},
    {"output", 'o', POPT_ARG_STRING, &typed.output, 0, "Write to a file, whole or not at all",
     "FILE"},
    POPT_TABLEEND};

enum class diff_format { table, json, csv, tsv };

diff_format typed_format() {
  const auto format = static_cast<diff_format>(
      choice_option("--format", typed.format, {"table", "json", "csv", "tsv"}, 0));
  if (typed.human != 0 && format != diff_format::table) {
    throw report_trouble("--human is for tables only");
  }
  return format;
}

std::vector<report_platform> states_of(std::vector<std::string> names) {
  if (names.empty()) throw report_trouble("diff needs the name of a snapshot");
  if (names.size() == 1) names.emplace_back("now");
  std::vector<report_platform> states;
  for (const std::string &name : names) {
    states.push_back(name == "now" ? collect() : read_snapshot(name));
    if (states.size() > 1 && states.back().taken < states[states.size() - 2].taken) {
      throw report_trouble(name + ": is older than the one before it");
    }
  }
  return states;
}

void choose_changes(std::vector<account_change> &changes, const std::vector<int> &levels,
                    size_t top) {
  std::erase_if(changes, [&](const account_change &change) {
    return !levels.empty() &&
           std::find(levels.begin(), levels.end(), change.account().level) == levels.end();
  });
  if (top != 0 && changes.size() > top) changes.resize(top);
}

void write(FILE *stream, diff_format format, const change_list &list) {
  switch (format) {
    case diff_format::table:
      write_changes_table(stream, list, typed.human != 0);
      break;
    case diff_format::json:
      write_changes_json(stream, list);
      break;
    case diff_format::csv:
      write_changes_separated(stream, separated_format::csv, list);
      break;
    case diff_format::tsv:
      write_changes_separated(stream, separated_format::tsv, list);
      break;
  }
}

report_status run(const std::vector<std::string> &words) {
  const diff_format format = typed_format();
  const kind_set kinds = kinds_option("--kind", typed.kind);
  const std::vector<int> levels = levels_option("--level", typed.level);
  constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
  const auto top = static_cast<size_t>(number_option("--top", typed.top, 1, most).value_or(0));
  const std::vector<report_platform> states = states_of(words);
  std::vector<account_change> changes = compare(states.front(), states.back(), kinds);
  choose_changes(changes, levels, top);
  report_output out(typed.output);
  write(out.stream(), format, {states, changes, kinds});
  out.commit();
  return REPORT_OK;
}

}  // namespace

const report_command diff_command = {
    .name = "diff",
    .arguments = "OLD... [NEW]",
    .summary = "Lists what grew, shrank, came, went and moved between snapshots",
    .details =
        "\n"
        "The greatest growth comes first. NEW may be the word \"now\", and is so when it is "
        "missing.\n"
        "An account has moved when another account is its parent.\n"
        "\n"
        "With three snapshots or more, the changes are those between the first and the last, and\n"
        "each account has the day on which it reaches the first of its limits, if its use goes on\n"
        "as the straight line through its figures does.\n",
    .options = options,
    .run = run,
};
