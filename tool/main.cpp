// spoolcap: refreshes and prints the storage quotas of accounts. One pass, one exit status.
#include <cstdio>
#include <cstdlib>

#include <spoolcap/sqlsession.h>
#include "platform/base/owner.h"
#include "tool/options.h"
#include "tool/output.h"
#include "tool/refresh.h"
#include "tool/report.h"
#include "tool/settings.h"
#include "tool/targets.h"

namespace {

enum exit_status {
  STATUS_OK = 0,
  STATUS_CONFIG = 2,
  STATUS_NO_REFRESH = 5,
  STATUS_SOME_REFRESHES = 6,
  STATUS_NO_TARGETS = 10,
  STATUS_UNDECIDED = 90
};

int run_once(target_table &targets) {
  int status = STATUS_UNDECIDED;

  if (get_config() != 0) {
    fputs("Error getting all the data from config files\n", stderr);
    return STATUS_CONFIG;
  }
  qx_sql_pool_init();

  targets = get_sql_data();
  if (targets == nullptr) {
    fputs("None of the requested users found in database.\n", stderr);
    return STATUS_NO_TARGETS;
  }

  if (run.action == ACTION_SET) {
    switch (refresh_user_quotas(targets.get())) {
      case 1:
        status = STATUS_SOME_REFRESHES;
        break;
      case 2:
      case -1:
        fputs("No quota file could be updated!\n", stderr);
        return STATUS_NO_REFRESH;
      default:
        break;
    }
  }
  if (run.quiet_flag == 0) show_quotas(targets.get());

  return status == STATUS_UNDECIDED ? STATUS_OK : status;
}

// A run that ends early has not done what it was started for; the statuses have no finer word.
int status_without_memory() {
  return run.action == ACTION_SET ? STATUS_NO_REFRESH : STATUS_NO_TARGETS;
}

}  // namespace

int main(int argc, char **argv) {
  watch_output();
  parse_args(argc, const_cast<const char **>(argv));
  target_table targets;
  const int decided = no_throw<int>(STATUS_UNDECIDED, [&] { return run_once(targets); });
  if (decided == STATUS_UNDECIDED) fputs("Out of memory\n", stderr);
  const int status = decided == STATUS_UNDECIDED ? status_without_memory() : decided;

  // The pool is left to the end of the process.
  safestr_free(run.ast_spool_dir);
  safestr_free(run.ast_lib_dir);
  safestr_free(run.quota_dir);
  targets.reset();
  free(run.uid_list);
  free(run.ulogin_list);
  exit(status);
}
