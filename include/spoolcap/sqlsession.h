/* The process-wide SQL pool: its set-up from the platform's files, and sessions on it.
 *
 * The caller of sess_init owns its SessionHandle, which one thread uses at a time. Functions whose
 * name ends in _sess take one or NULL. With NULL they use a session of their own for the call; they
 * never release the caller's. Several threads may take and release sessions: set the pool up before
 * they start, and close it after they end. A child of fork may use the pool, but not its parent's
 * sessions. */
#ifndef SPOOLCAP_SQLSESSION_H
#define SPOOLCAP_SQLSESSION_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

typedef struct fr_sql_conn *SessionHandle;

/* Sets the pool up from the platform's own files; call once at start. A failure shows in
 * sess_init. It is logged too, unless the servers file is what cannot be opened. */
void qx_sql_pool_init(void);

/* The same from other files: `credentials_file` with the DB_CREDENTIALS lines, `servers_file` with
 * SLAVE_DOWN_TIME, SLAVE_MAX_LAG, DB_MASTER and DB_SLAVE. 0 ready; -1 when a file cannot be opened,
 * a credentials line is malformed, or no master is named. Logs a warning about a credentials file
 * that everybody may read. */
int qx_sql_pool_init_from_config_files(const char *credentials_file, const char *servers_file);

/* Closes the pool; 0. */
int qx_sql_pool_destroy(void);

/* A session on the first shard, or NULL when no server of it can be reached. */
SessionHandle sess_init(void);

/* NULL is ignored. */
void sess_destroy(SessionHandle session);

SPOOLCAP_END_DECLARATIONS

#endif
