// The command `list`: the accounts, chosen and ordered as the options say.
#include <cstring>

#include "report/command.h"
#include "report/json.h"
#include "report/output.h"

namespace {

struct {
  char *format = nullptr;
  char *output = nullptr;
} options;

const poptOption option_table[] = {
    {"format", 'f', POPT_ARG_STRING, &options.format, 0, "table, json, jsonl, csv or tsv",
     "FORMAT"},
    {"output", 'o', POPT_ARG_STRING, &options.output, 0, "Write to a file", "FILE"},
    POPT_TABLEEND};

report_status run(const std::vector<std::string> &words) {
  if (!words.empty()) throw report_trouble("Not understood: " + words[0]);
  const report_platform platform = collect();
  report_output out(options.output);
  const account_source all = [&](const auto &visit) {
    for (const report_account &account : platform.accounts) visit(account);
  };
  write_document(out.stream(), platform, all);
  out.commit();
  return REPORT_OK;
}

}  // namespace

const report_command list_command = {
    .name = "list",
    .arguments = "",
    .summary = "Lists accounts with what they use and may use",
    .details = "",
    .options = option_table,
    .run = run,
};
