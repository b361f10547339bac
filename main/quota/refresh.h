// The slow refresh, step by step. Internal to the engine; quota_update_slow is its public face.
#ifndef MAIN_QUOTA_REFRESH_H
#define MAIN_QUOTA_REFRESH_H

#include <cstdint>
#include <string>

// quota_update_slow with a scratch value that is handed down unused.
int quota_update_slow_internal(int account_id, unsigned kind, int64_t *total, int force,
                               int64_t *scratch);

// Refreshes the account whose quota directory `directory` is, children first. Ids are decimal text
// as the statements take them; parent and grandparent may be null. `directory` grows and shrinks
// during the walk and comes back as it was. *total, when given, takes the value of the last kind
// handled. 0 when every requested kind was handled, -1 on a failure that stopped the walk.
int quota_update_subtree(const char *id, const char *parent_id, const char *grandparent_id,
                         int level, unsigned kind, std::string &directory, int64_t *total,
                         int force_depth, int64_t *scratch);

#endif
