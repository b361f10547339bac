// The jobs that run.
// Written by workers, read for the status; in memory only.
#include "transfer/state.h"

#include <spoolcap/zarn_str.h>

transfer_state::ticket::ticket(transfer_state &state, std::string kind, std::string name)
    : state_(state) {
  running_job job{.kind = std::move(kind), .name = std::move(name), .since = qx_get_tstamp()};
  const std::lock_guard guard(state_.lock_);
  // A list: the place stays valid while others come and go.
  job_ = state_.running_.insert(state_.running_.end(), std::move(job));
}

transfer_state::ticket::~ticket() {
  const std::lock_guard guard(state_.lock_);
  state_.running_.erase(job_);
}

std::vector<running_job> transfer_state::running() const {
  const std::lock_guard guard(lock_);
  return {running_.begin(), running_.end()};
}
