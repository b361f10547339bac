// The refreshing half of a run.
#ifndef TOOL_REFRESH_H
#define TOOL_REFRESH_H

#include "platform/base/hash.h"

// Refreshes every selected account of the table and its subtree; one that fails does not stop the
// others. 0 when none failed (or there was none), 1 when some failed and some did not, 2 when all
// failed. Throws std::bad_alloc when the targets cannot be listed.
int refresh_user_quotas(fr_hash_t *targets);

#endif
