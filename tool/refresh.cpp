// Refreshes the selected accounts, and sums up how that went.
// One call of the engine for each account, one after the other.
#include "tool/refresh.h"

#include <spoolcap/quota.h>
#include "main/quota/tally.h"
#include "tool/settings.h"
#include "tool/targets.h"

int refresh_user_quotas(fr_hash_t *targets) {
  bool succeeded = false;
  bool failed = false;
  for_each_target(targets, [&](int32_t id, const target_record &target) {
    // Its parent's refresh has covered it.
    if (target.selected == 0) return;
    if (quota_update_slow(id, QUOTA_ALL_KINDS, nullptr, run.force_depth) == 0) {
      succeeded = true;
    } else {
      ++the_tally.failed;
      failed = true;
    }
  });
  if (!failed) return 0;
  return succeeded ? 1 : 2;
}
