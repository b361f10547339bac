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
 * first. Files that are clean and were updated fewer than 1000 times since their last refresh are
 * left as they are, unless they lie within `force` levels of the account (0 forces none). *total,
 * when not NULL, takes the account's value of the last kind handled. What cannot be measured
 * counts as 0. When that is because something could not be read, or a child could not be
 * refreshed, the account and those above it get an empty file "quota.redo" beside their quota
 * files, and the next refresh of all kinds computes them again. The process umask is 007 during
 * the call. One thread at a time.
 *
 * 0 when the refresh ran, whatever came of single files; -1 for a kind above 5, no database
 * session, an owner's parent that cannot be looked up, settings that cannot be read, or no memory;
 * -2 when the account is not known. */
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

/* Adds `delta` bytes to the quota files of one kind of an account and of all accounts above it, as
 * a component does after it stored or deleted media. `wait` is the time in milliseconds that each
 * file's lock is tried for, in steps of 10; negative means 30. A file that cannot be locked, read
 * or written is left with a dirty mark, so that the next refresh computes it again, and the others
 * are updated all the same; one that cannot even be opened loses the delta without a mark. The
 * process umask is 007 during the call.
 *
 * 0 when the update ran, whatever came of single files; -1 for a kind above 4, no database session,
 * no reseller above the account, or a way up that leads in a circle; -2 when an account on it is
 * not known. */
int quota_update(int account_id, unsigned kind, int64_t delta, int wait);

/* The same for an account whose place in the tree is known; an id is 0 where there is none, and
 * `wait` is taken as it is. The umask is the caller's. 0; -1 for a kind above 4 or a reseller that
 * is not positive. */
int quota_update_fast(unsigned kind, int64_t delta, int wait, int reseller_id, int client_id,
                      int owner_id);

/* The same for one quota file by its path; it and its directory are created when they are not
 * there. The lock is tried wait / 10 + 1 times, with 10 ms after each failure; once and without a
 * pause for a negative wait. A file that another process has just created and not yet filled counts
 * as locked. A sum below 0 is stored as 0. A delta of 0 only reads, unless the file is new.
 *
 * The file's value in bytes, of which an int holds the lowest 32 bits: 2 GiB and more give a
 * negative number or a wrong small one. -1 when there is no value: a path without "/", no user or
 * group "asterisk", a dirty mark, a file that cannot be opened, locked or understood. The last two
 * leave a dirty mark. */
int quota_upd_fast_internal(const char *path, int64_t delta, int wait);

/* Whether an account, or one above it, has used up its storage of one kind: asked before media is
 * stored. Limits are the accounts' preferences, in KiB; a text that is no number is a limit of 0.
 * An account without one is never full, and neither is one whose file is dirty or not readable, or
 * holds 2 GiB to less than 4 GiB, which the 32 bits of quota_upd_fast_internal show as a negative
 * number. Tries each lock once and never waits. A missing file is created and holds 0 afterwards, a
 * file that is locked gets a dirty mark. Also prints its result as one line on standard output.
 *
 * 0 when nothing is full, or the root was met on the way up; the id of the full account, the lowest
 * one first, plus 10,000,000 times its level (owner 100, client 50, reseller 10); -1 for a kind
 * above 4, no database session, no reseller above the account, or a way up that leads in a circle;
 * -2 when an account on it is not known. */
int quota_verify(int account_id, unsigned kind);

/* The same for an account whose place in the tree and limits in bytes are known; a negative limit
 * is none. Prints and logs nothing. -1 for a kind above 4 or a reseller that is not positive. */
int quota_verify_disk(unsigned kind, int reseller_id, int client_id, int owner_id,
                      int64_t reseller_limit, int64_t client_limit, int64_t owner_limit);

/* Sleeps this many seconds, signals or not. 0, or -1 with errno on another failure. */
int fine_sleep(float seconds);

/* Bytes of all files below a directory, less one: the count starts at -1. -1 when the directory
 * cannot be opened. */
int64_t quota_get_dirsize(const char *path);

SPOOLCAP_END_DECLARATIONS

#endif
