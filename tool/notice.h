// The one line of notice priority that ends a run in the log.
#ifndef TOOL_NOTICE_H
#define TOOL_NOTICE_H

#include <cstdint>

#include "platform/base/hash.h"
#include "tool/targets.h"

// Counts what was read of an account, if the account is among the targets and its parent is not:
// the figures of all others are part of such an account's figures. Only `show` counts this way.
void count_shown(fr_hash_t *targets, int32_t id, const int64_t *quotas);

// "set: 90 accounts refreshed, 0 failed, 0 skipped; fax 1, sound 2, recording 3, voicemail 4, music
// 5 bytes; 0.1 s". The seconds are those since the process began to count: call start_clock first.
void start_clock();
void log_end_of_run();

#endif
