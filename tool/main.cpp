// spoolcap: refreshes and prints the storage quotas of accounts. One pass, one exit status.
// Reads configuration and database, writes quota files by way of the engine.
#include <cstdio>
#include <cstdlib>
#include <optional>

#include <spoolcap/sqlsession.h>
#include "platform/base/owner.h"
#include "tool/notice.h"
#include "tool/options.h"
#include "tool/output.h"
#include "tool/refresh.h"
#include "tool/report.h"
#include "tool/settings.h"
#include "tool/targets.h"

namespace {

// Scripts go by these numbers. 1, a bad command line, is given by options.cpp.
enum exit_status {
  STATUS_OK = 0,
  STATUS_CONFIG = 2,
  STATUS_NO_REFRESH = 5,
  STATUS_SOME_REFRESHES = 6,
  STATUS_NO_TARGETS = 10
};

exit_status run_once() {
  if (get_config() != 0) {
    std::fputs("Error getting all the data from config files\n", stderr);
    return STATUS_CONFIG;
  }
  // Its result is nothing: without a database no target is found, which says the same.
  qx_sql_pool_init();

  // One pass: targets that appear later are for the next run.
  const target_table targets = get_sql_data();
  if (targets == nullptr) {
    std::fputs("None of the requested users found in database.\n", stderr);
    return STATUS_NO_TARGETS;
  }

  exit_status status = STATUS_OK;
  if (run.action == ACTION_SET) {
    switch (refresh_user_quotas(targets.get())) {
      case 1:
        status = STATUS_SOME_REFRESHES;
        break;
      case 2:
      case -1:
        std::fputs("No quota file could be updated!\n", stderr);
        return STATUS_NO_REFRESH;
      default:
        break;
    }
  }
  // Also after a refresh that failed in part: the report shows what is stored now.
  if (run.quiet_flag == 0) show_quotas(targets.get());
  return status;
}

// A run that ends early has not done what it was started for; the statuses have no finer word.
exit_status end_without_memory() {
  std::fputs("Out of memory\n", stderr);
  return run.action == ACTION_SET ? STATUS_NO_REFRESH : STATUS_NO_TARGETS;
}

}  // namespace

int main(int argc, char **argv) {
  // The order matters: output is watched before anything opens a file, and before a bad command
  // line is reported.
  start_clock();
  watch_output();
  parse_args(argc, const_cast<const char **>(argv));
  const auto decided =
      no_throw(std::optional<exit_status>(), [] { return std::optional(run_once()); });
  no_throw(log_end_of_run);
  // The pool and the settings are left to the end of the process.
  std::exit(decided ? *decided : end_without_memory());
}
