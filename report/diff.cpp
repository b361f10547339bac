// The command `diff`: what changed between snapshots, or between a snapshot and now.
// Reads snapshots or the platform; writes the list of changes.
#include <algorithm>

#include "report/change_list.h"
#include "report/command.h"
#include "report/options.h"
#include "report/output.h"
#include "report/snapshot.h"

namespace {

const poptOption options[] = {
    list_format_row, kind_row,   level_row,    top_row("Only the first N changes"),
    human_row,       output_row, POPT_TABLEEND};

// Only the first and the last state are held, and what the forecast keeps of all.
struct compared_states {
  report_platform before, after;
  std::optional<forecast> outlooks;  // of three states or more
};

compared_states read_states(std::vector<std::string> names) {
  if (names.empty()) throw report_trouble("diff needs the name of a snapshot");
  if (names.size() == 1) names.emplace_back("now");
  compared_states states;
  if (names.size() > 2) states.outlooks.emplace();
  std::int64_t last_taken = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    report_platform state = names[i] == "now" ? collect() : read_snapshot(names[i]);
    if (state.taken < last_taken) {
      throw report_trouble(names[i] + ": is older than the one before it");
    }
    // The order is part of the question; sorting would answer another one.
    last_taken = state.taken;
    if (states.outlooks) states.outlooks->add(state);
    if (i == 0) {
      states.before = std::move(state);
    } else if (i + 1 == names.size()) {
      states.after = std::move(state);
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
  const compared_states states = read_states(words);
  const forecast *const outlooks = states.outlooks ? &*states.outlooks : nullptr;
  std::vector<account_change> changes = compare(states.before, states.after, kinds, outlooks);
  choose_changes(changes, levels, top);
  report_output out(typed.output);
  write(out.stream(), format, {states.before, states.after, changes, kinds, outlooks != nullptr});
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
        "\"-\" is standard input.\n"
        "An account has moved when another account is its parent.\n"
        "\n"
        "With three snapshots or more, the changes are those between the first and the last.\n"
        "Each account also has the day on which it reaches its first limit. That day continues\n"
        "the straight line through its trusted figures. Accounts that reach one are listed\n"
        "even if their use is the same.\n",
    .options = options,
    .run = run,
};
