// Tells the log what a run came to.
// Reads the engine's tally; writes one line of the log.
#include "tool/notice.h"

#include <chrono>
#include <string>

#include "main/account/media.h"
#include "main/quota/tally.h"
#include "platform/base/diagnostics.h"
#include "tool/settings.h"

namespace {

using clock_type = std::chrono::steady_clock;

clock_type::time_point started;

}  // namespace

void count_shown(fr_hash_t *targets, int32_t id, const int64_t *quotas) {
  const auto *target = fr_hash_find<target_record>(targets, id);
  if (run.action != ACTION_SHOW || target == nullptr) return;
  // The parent's figures hold these already.
  if (fr_hash_find<target_record>(targets, target->parent_id) != nullptr) return;
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    if (quotas[kind] > 0) the_tally.add(kind, quotas[kind]);
  }
}

void start_clock() {
  started = clock_type::now();
}

void log_end_of_run() {
  std::string bytes;
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    bytes += std::string(kind == 0 ? "" : ", ") + media_kinds[kind].name + " " +
             std::to_string(the_tally.bytes[kind]);
  }
  const std::chrono::duration<double> taken = clock_type::now() - started;
  QX_LOG(FR_LOG_NOTICE, "%s: %ld accounts refreshed, %ld failed, %ld skipped; %s bytes; %.1f s\n",
         run.action == ACTION_SET ? "set" : "show", the_tally.refreshed, the_tally.failed,
         the_tally.skipped, bytes.c_str(), taken.count());
}
