// The command `diff`: what changed between snapshots, or between a snapshot and now.
#include <algorithm>

#include "report/change_list.h"
#include "report/command.h"
#include "report/options.h"
#include "report/output.h"
#include "report/snapshot.h"

namespace {

const poptOption options[] = {list_format_row,
                              kind_row,
                              level_row,
                              top_row("Only the first N changes"),
                              human_row("Sizes with units, in a table"),
                              output_row,
                              POPT_TABLEEND};

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

void write(FILE *stream, report_format format, const change_list &list) {
  switch (format) {
    case report_format::table:
      write_changes_table(stream, list, typed.human != 0);
      break;
    case report_format::json:
      write_changes_json(stream, list);
      break;
    case report_format::jsonl:
      write_changes_lines(stream, list);
      break;
    case report_format::csv:
      write_changes_separated(stream, separated_format::csv, list);
      break;
    case report_format::tsv:
      write_changes_separated(stream, separated_format::tsv, list);
      break;
  }
}

report_status run(const std::vector<std::string> &words) {
  const report_format format = typed_format();
  const kind_set kinds = typed_kinds();
  const std::vector<int> levels = typed_levels();
  const size_t top = typed_top().value_or(0);
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
