// Tells the log what changed.
// On the main thread, with each report; reads what others put into it.
#include "transfer/journal.h"

#include <utility>

#include "platform/base/diagnostics.h"

void state_journal::tell(const service_report &report) {
  // The report has no queue only when the DisDB did not answer.
  const bool answers = report.queue.has_value();
  if (std::exchange(answers_, answers) != answers) {
    if (answers) {
      QX_LOG(FR_LOG_NOTICE, "The cache server answers again.");
    } else {
      QX_LOG(FR_LOG_ERROR,
             "The cache server does not answer: nothing is uploaded or deleted until it does.");
    }
  }
  if (answers && std::exchange(policy_, report.dangerous_policy) != report.dangerous_policy &&
      !policy_.empty()) {
    QX_LOG(FR_LOG_ERROR,
           "The cache server may throw queues away (maxmemory-policy %s): set it to noeviction.",
           policy_.c_str());
  }
  const bool refuses = !report.refusal.empty();
  if (std::exchange(refuses_, refuses) != refuses) {
    if (refuses) {
      QX_LOG(FR_LOG_ERROR, "The cache server lets no queue change: %s", report.refusal.c_str());
    } else {
      QX_LOG(FR_LOG_NOTICE, "The cache server lets queues change again.");
    }
  }
  const std::size_t parked = report.parked_count;
  // A number that goes up and down is no news, one that doubles is.
  if (parked == 0 && std::exchange(parked_, 0) != 0) {
    QX_LOG(FR_LOG_NOTICE, "No queue member is parked any more.");
  } else if (parked > 0 && parked >= 2 * parked_) {
    parked_ = parked;
    QX_LOG(FR_LOG_WARNING, "Parked queue members: %zu; `spoolcap-transfer --status` tells why.",
           parked);
  }
  const std::int64_t missing = report.cache.not_in_store;
  // Only when it grows: each look counts all of them anew.
  if (std::exchange(not_in_store_, missing) < missing) {
    QX_LOG(FR_LOG_ERROR,
           "Stored files that are not in the store any more: %lld; kept in the cache.",
           static_cast<long long>(missing));
  }
}
