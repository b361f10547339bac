/* The process-wide SQL pool: its set-up from the platform's files, and sessions on it.
 *
 * A SessionHandle belongs to whoever took it with sess_init and to one thread at a time. Functions
 * whose name ends in _sess take one or NULL; with NULL they take a session of their own and give
 * it back before they return, and they never release a caller's. Sessions are taken and given back
 * from several threads; set the pool up before they start, and close it after they have ended.
 * A child of fork may go on with the pool, but not with sessions of its parent. */
#ifndef SPOOLCAP_SQLSESSION_H
#define SPOOLCAP_SQLSESSION_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

typedef struct fr_sql_conn *SessionHandle;

/* Sets the pool up from the platform's own files; call once at start. A failure shows in
 * sess_init, and in the log unless it is that the servers file cannot be opened. */
void qx_sql_pool_init(void);

/* The same from other files: `credentials_file` with the DB_CREDENTIALS lines, `servers_file` with
 * SLAVE_DOWN_TIME, DB_MASTER and DB_SLAVE. 0 ready; -1 when a file cannot be opened, a credentials
 * line is malformed, or no master is named. A credentials file that everybody may read is warned of
 * in the log. */
int qx_sql_pool_init_from_config_files(const char *credentials_file, const char *servers_file);

/* Closes the pool; 0. */
int qx_sql_pool_destroy(void);

/* A session on the first shard, or NULL when no server of it can be reached. */
SessionHandle sess_init(void);

/* NULL is ignored. */
void sess_destroy(SessionHandle session);

SPOOLCAP_END_DECLARATIONS

#endif
