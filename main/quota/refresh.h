// The slow refresh, step by step. Internal to the engine; quota_update_slow is its public face.
#ifndef MAIN_QUOTA_REFRESH_H
#define MAIN_QUOTA_REFRESH_H

#include <cstdint>

#include "sql_owner.h"

// quota_update_slow with a scratch value that is handed down unused.
int quota_update_slow_internal(int account_id, unsigned kind, int64_t *total, int force,
                               int64_t *scratch);

// Refreshes the account whose quota directory *directory is, children first. Ids are decimal text
// as the statements take them; parent and grandparent may be null. *directory is a growable string
// that comes back as it was. *total, when given, takes the value of the last kind handled. 0 when
// every requested kind was handled, -1 on a failure that stopped the walk.
int quota_update_subtree(const char *id, const char *parent_id, const char *grandparent_id,
                         int level, unsigned kind, char **directory, int64_t *total,
                         int force_depth, int64_t *scratch);

// Adds the children's values of one kind to *sum; children without a readable file add nothing.
// 0, or -1 when the children cannot be listed to the end.
int grab_child_quotas(const char *id, const char *parent_id, const char *grandparent_id,
                      unsigned kind, const char *directory, int64_t *sum);

// 1 when the quota file (relative to the open directory `at`) holds a record whose revision is 0 to
// 999, else 0. The value, when one was read, is left in *value.
int is_rev_inrange(const char *path, int64_t *value, int at = AT_FDCWD);

// Writes one record under the file's lock, creating the file when it is not there. 0, or -1 when
// it can be neither opened nor created; what the write itself gave is told in *written only.
int quota_real_update(const char *path, int64_t value, int revision, int at = AT_FDCWD,
                      bool *written = nullptr);

// Revisions that a refresh leaves alone end here, and the first that it does not.
inline constexpr int highest_fresh_revision = 999;
inline constexpr int expired_revision = 1000;

// Makes the next refresh compute the file again, with its value as it is. A file that is missing
// or holds no record needs nothing.
void expire_quota_file(const char *path, int at);

// An account that the walk is at, and the one above it in the walk.
struct tree_account {
  const char *id;
  const char *parent_id;
  const char *grandparent_id;
  int level;
  const tree_account *above;
};

// Bytes that the account itself uses of one kind; -1 when the database does not tell.
int64_t own_usage(const tree_account &self, unsigned kind);

// All rows of a statement that takes one id; null, logged in the name of `site`, when it fails. The
// session goes back as soon as they are stored: a walk holds a result on every level it is in, and
// never more than one session.
sql_result rows_of(const call_site &site, const char *statement, const char *id);

#endif
