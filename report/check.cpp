// The command `check`: where figures, database and disk disagree.
// Reads all three and changes none of them; the parts are in check_*.cpp.
#include <filesystem>

#include "main/quota/settings.h"
#include "report/checks.h"
#include "report/command.h"
#include "report/options.h"
#include "report/output.h"
#include "report/statement.h"

namespace {

// As typed; null for what was not given.
char *storage = nullptr;
int deep = 0;

const poptOption options[] = {
    {"deep", 'd', POPT_ARG_NONE, &deep, 0, "Measure sounds and music on disk, too", nullptr},
    {"storage", '\0', POPT_ARG_STRING, &storage, 0,
     "Where stored files are; by default Asterisk's spool directory", "FOLDER"},
    format_row("text (the default) or json"),
    output_row,
    POPT_TABLEEND};

report_status run(const std::vector<std::string> &words) {
  take_no_words(words);
  const bool as_json = choice_option("--format", typed.format, {"text", "json"}, 0) == 1;
  // A folder that was misspelt would make each row look as if its file were gone.
  if (storage != nullptr && !std::filesystem::is_directory(storage)) {
    throw report_trouble(std::string("--storage: no folder: ") + storage);
  }
  const report_platform platform = collect();
  report_output file(typed.output);
  findings_writer out(file.stream(), as_json, platform);
  check_accounts(platform, out);
  check_figures(platform, deep != 0, out);
  check_quota_folders(platform, out);
  check_stored_files(storage != nullptr ? storage : loaded_settings()->ast_spool_dir.c_str(), out);
  check_indexes(out);
  out.end();
  file.commit();
  return out.count() == 0 ? REPORT_OK : REPORT_FINDINGS;
}

}  // namespace

void for_each_entry(const std::filesystem::path &folder,
                    const std::function<void(const std::filesystem::directory_entry &)> &visit) {
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    visit(*entry);
  }
  if (error && error != std::errc::no_such_file_or_directory &&
      error != std::errc::not_a_directory) {
    throw report_trouble(folder.string() + ": " + error.message());
  }
}

bool exists_now(std::uint64_t id) {
  const report_session session(server_choice::master);
  bool exists = false;
  for_each_row(session.get(), "SELECT level FROM client WHERE id = " + std::to_string(id),
               [&](const sql_fields &row) { exists = row[0] && is_reported(number_of(row[0])); });
  return exists;
}

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
