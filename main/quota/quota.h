/* The quota engine: what each account and its subtree uses of its storage.
 *
 * A resource kind is an index: 0 fax, 1 sound, 2 recording, 3 voicemail, 4 music on hold; 5 stands
 * for all five. Counts are bytes, signed 64-bit; -1 means that none is known. The results live in
 * quota files below the quota root, shared by all processes of the platform. */
#ifndef MAIN_QUOTA_QUOTA_H
#define MAIN_QUOTA_QUOTA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum quota_kind {
  QUOTA_FAX,
  QUOTA_SOUND,
  QUOTA_RECORDING,
  QUOTA_VOICEMAIL,
  QUOTA_MUSIC,
  QUOTA_ALL_KINDS
};

/* Recomputes the quota files of an account and of its whole subtree from the real data, children
 * first. Files that are clean and were updated fewer than 1000 times since their last refresh are
 * left as they are, unless they lie within `force` levels of the account (0 forces none). *total,
 * when not NULL, takes the account's value of the last kind handled. What cannot be measured
 * counts as 0; a value that rests on it, or on a child that could not be refreshed, is left with a
 * dirty mark, so that the next refresh computes it again. The process umask is 007 during the
 * call. One thread at a time.
 *
 * 0 when the refresh ran, whatever came of single files; -1 for a kind above 5 or no database
 * session; -1 also when an owner's parent cannot be looked up; -2 when the account cannot be. */
int quota_update_slow(int account_id, unsigned kind, int64_t *total, int force);

/* Reads an account's stored values, for kind 5 into values[0..4], else into values[0]; a file that
 * is missing or not readable gives -1. `revisions` (updates since the last refresh) may be NULL.
 * The parent is 0 for a reseller, the grandparent 0 for a client. Never locks. Safe from
 * several threads, as is all that follows.
 * 0; -1 for a kind above 5, no values, no account, or a grandparent without the two below it. */
int quota_read(unsigned account_id, unsigned parent_id, unsigned grandparent_id, unsigned kind,
               int64_t *values, int *revisions);

/* The same for an account whose place in the tree is looked up. -1 also when there is no database
 * session, for a level other than 10, 50 or 100, and when the parent's parent is not known; -2
 * when the account is not. */
int quota_read_sql(int account_id, unsigned kind, int64_t *values, int *revisions);

/* Bytes of all files below a directory, less one: the count starts at -1. -1 when the directory
 * cannot be opened. */
int64_t quota_get_dirsize(const char *path);

#ifdef __cplusplus
}
#endif

#endif
