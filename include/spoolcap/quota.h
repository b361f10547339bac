/* The quota engine: what each account and its subtree uses of its storage.
 *
 * A resource kind is an index: 0 fax, 1 sound, 2 recording, 3 voicemail, 4 music on hold; 5 stands
 * for all five. Counts are bytes, signed 64-bit; -1 means that none is known. The results live in
 * quota files below the quota root, shared by all processes of the platform. */
#ifndef SPOOLCAP_QUOTA_H
#define SPOOLCAP_QUOTA_H

#include <stdint.h>

#include <spoolcap/declarations.h>
#include <spoolcap/kinds.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Recomputes the quota files of an account and of its whole subtree from the real data, children
 * first. A clean file with fewer than 1000 updates since its last refresh stays, unless it lies
 * within `force` levels of the account (0: none). *total, unless NULL, takes the account's value of
 * the last kind handled. What cannot be measured counts as 0. If something could not be read, or a
 * child not refreshed, the account and those above it get an empty file "quota.redo". The next
 * refresh of all kinds then computes them again. The process umask is 007 during the call. One
 * thread at a time.
 *    0  it ran, whatever happened to single files
 *   -1  kind above 5, no database session, owner's parent not known, no settings, no memory
 *   -2  account not known */
int quota_update_slow(int account_id, unsigned kind, int64_t *total, int force);

/* Reads an account's stored values: kind 5 into values[0..4], else values[0]; -1 for a file that is
 * missing or unreadable. `revisions` (updates since the last refresh) may be NULL. The parent of a
 * reseller and the grandparent of a client are 0. Never locks. Safe from several threads, as is all
 * that follows. 0; -1 for a kind above 5, no values, no account, or a grandparent without the two
 * below it. */
int quota_read(unsigned account_id, unsigned parent_id, unsigned grandparent_id, unsigned kind,
               int64_t *values, int *revisions);

/* The same with the place in the tree looked up.
 *    0  values were read
 *   -1  as above; no database session, level other than 10, 50, 100, parent's parent not known
 *   -2  account not known */
int quota_read_sql(int account_id, unsigned kind, int64_t *values, int *revisions);

/* Adds `delta` bytes to one kind of an account and of all above it, after media was stored or
 * deleted. Each file's lock is tried for `wait` milliseconds in steps of 10, and given up a step
 * later; negative means 30. A file that cannot be locked, read or written gets a dirty mark: the
 * next refresh computes it again. One that cannot be opened loses the delta without a mark. The
 * process umask is 007 during the call.
 *    0  it ran, whatever happened to single files
 *   -1  kind above 4, no database session, no reseller above, parent chain in a circle
 *   -2  an account of the parent chain is not known */
int quota_update(int account_id, unsigned kind, int64_t delta, int wait);

/* The same with the place in the tree given: an id is 0 where there is none. A negative `wait` is
 * one try. The umask is the caller's. 0; -1 for a kind above 4 or a reseller below 1. */
int quota_update_fast(unsigned kind, int64_t delta, int wait, int reseller_id, int client_id,
                      int owner_id);

/* The same for one quota file by its path; a missing file or directory is created. The lock is
 * tried wait / 10 + 1 times, with 10 ms after each failure; for a negative wait once, without a
 * pause. A file that another process has created but not yet filled counts as locked. A sum below 0
 * is stored as 0. A delta of 0 only reads, unless the file is new.
 * Returns the lowest 32 bits of the value in bytes: 2 GiB and more look negative or too small.
 *   -1  no "/" in the path, no user or group "asterisk", a dirty mark, a file that cannot be opened
 *   -1  file locked or not understood: it gets a dirty mark */
int quota_upd_fast_internal(const char *path, int64_t delta, int wait);

/* Whether an account, or one above it, has used up its storage of one kind; ask before storing.
 * Limits are the accounts' preferences, in KiB; a text that is no number is a limit of 0. Never
 * full is an account without a limit, with a dirty or unreadable file, or with 2 GiB to less than
 * 4 GiB. Tries each lock once and never waits. Creates a missing file, with 0; marks a locked one
 * dirty. Also prints its result as one line on standard output.
 *    0  nothing is full, or the parent chain has the root
 *   >0  id of the lowest full account, plus 10,000,000 times its level (owner 100, client 50,
 *       reseller 10)
 *   -1  kind above 4, no database session, no reseller above, parent chain in a circle
 *   -2  an account of the parent chain is not known */
int quota_verify(int account_id, unsigned kind);

/* The same with place and limits in bytes given; a negative limit is none. Prints and logs nothing.
 * 0 or above 0 as above; -1 for a kind above 4 or a reseller below 1. */
int quota_verify_disk(unsigned kind, int reseller_id, int client_id, int owner_id,
                      int64_t reseller_limit, int64_t client_limit, int64_t owner_limit);

/* Sleeps this many seconds, signals or not. 0, or -1 with errno on another failure. */
int fine_sleep(float seconds);

/* Bytes of all files below a directory, less one: the count starts at -1. -1 when the directory
 * cannot be opened. */
int64_t quota_get_dirsize(const char *path);

SPOOLCAP_END_DECLARATIONS

#endif
