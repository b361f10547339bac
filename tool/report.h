// The report on standard output: one block per account.
#ifndef TOOL_REPORT_H
#define TOOL_REPORT_H

#include <cstdint>

#include "platform/base/hash.h"

// Prints the stored usage of every target, or, for a run over all accounts, of every account that
// the database knows, in its order. 0, or -1 when it cannot start or its statement fails.
// Throws std::bad_alloc when memory is short.
int show_quotas(fr_hash_t *targets);

// Prints the total of the known counts of five kinds and then each kind, followed by an empty line;
// a negative count is not known. 0.
int print_quotas(const int64_t *quotas);

// Scales a byte count down by 1024 as often as it stays at least 1, writes the unit (at most two
// characters, "?B" from 1024 TB on) to `unit` and returns the scaled number.
float to_human_readable(char (&unit)[3], float bytes);

// Display name of a resource kind; null above 4.
const char *quota_get_target_name(unsigned kind);

#endif
