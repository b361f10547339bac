// The report on standard output: one block per account.
#ifndef TOOL_REPORT_H
#define TOOL_REPORT_H

#include "platform/base/hash.h"

// Prints the stored usage of every target, or, for a run over all accounts, of every account that
// the database knows, in its order. 0, or -1 when it cannot start or its statement fails.
// Throws std::bad_alloc when memory is short.
int show_quotas(fr_hash_t *targets);

#endif
