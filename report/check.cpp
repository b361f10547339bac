// The command `check`: where figures, database and disk disagree.
#include "main/quota/settings.h"
#include "report/checks.h"
#include "report/command.h"
#include "report/options.h"
#include "report/output.h"

namespace {

struct {
  char *format = nullptr;
  char *storage = nullptr;
  char *output = nullptr;
  int deep = 0;
} typed;

const poptOption options[] = {
    {"deep", 'd', POPT_ARG_NONE, &typed.deep, 0, "Measure sounds and music on disk, too", nullptr},
    {"storage", '\0', POPT_ARG_STRING, &typed.storage, 0,
     "Where stored files are; by default Asterisk's spool directory", "FOLDER"},
    {"format", 'f', POPT_ARG_STRING, &typed.format, 0, "text (the default) or json", "FORMAT"},
    {"output", 'o', POPT_ARG_STRING, &typed.output, 0, "Write to a file, whole or not at all",
     "FILE"},
    POPT_TABLEEND};

report_status run(const std::vector<std::string> &words) {
  take_no_words(words);
  const bool as_json = choice_option("--format", typed.format, {"text", "json"}, 0) == 1;
  const report_platform platform = collect();
  report_output file(typed.output);
  findings_writer out(file.stream(), as_json, platform);
  check_accounts(platform, out);
  check_figures(platform, typed.deep != 0, out);
  check_quota_folders(platform, out);
  check_stored_files(
      typed.storage != nullptr ? typed.storage : loaded_settings()->ast_spool_dir.c_str(), out);
  check_indexes(out);
  out.end();
  file.commit();
  return out.count() == 0 ? REPORT_OK : REPORT_FINDINGS;
}

}  // namespace

const report_command check_command = {
    .name = "check",
    .arguments = "",
    .summary = "Tells where figures, database and disk disagree",
    .details =
        "\n"
        "One line for each finding; changes nothing.\n"
        "Ends with 0 when there is none, with 1 when there is one, with 2 in trouble.\n",
    .options = options,
    .run = run,
};
