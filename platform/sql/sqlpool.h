/* SQL pool of the platform, over MariaDB Connector/C.
 *
 * Shards are named by the id that ties a DB_CREDENTIALS line to its DB_MASTER and DB_SLAVE lines;
 * the first one registered is shard 0. A session reads (SELECT) from a slave when one is up, and
 * from the master otherwise. Everything else goes to the master, and the session then stays there.
 * A slave that cannot be reached is skipped for the down time (30 s unless set). A master is
 * skipped only if it made its caller wait, and for 5 s at most: no other server can replace it.
 * Connections are kept and reused per server. One that idled for longer than the limit is checked
 * before it is handed out. No statement is retried: after a lost connection every further one on
 * its session fails.
 *
 * Connecting takes 3 s at most, after what the resolver takes for a host name; a statement without
 * any answer fails after 600 s. Text is utf8mb4.
 * All functions may be called from any thread; a session belongs to one thread at a time. A child
 * of fork gets connections of its own, but must not use the sessions that its parent had out. */
#ifndef PLATFORM_SQL_SQLPOOL_H
#define PLATFORM_SQL_SQLPOOL_H

#include <mysql.h>
#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A session; and a set of servers with the same data, of which one or more are masters. */
typedef struct fr_sql_conn fr_sql_conn_t;
typedef struct fr_sql_shard fr_sql_shard_t;

/* Starts with no shards; what an earlier initialisation registered is dropped. The two pointers
 * must be NULL; `idle_limit` is in seconds. 0, or -1 when the client library cannot start. */
int fr_sqlpool_init_api(const void *reserved1, const void *reserved2, double idle_limit);

/* Up to which detail the pool logs: 0 nothing, 100 everything. */
void fr_sqlpool_verbosity_set(int level);

/* Seconds for which an unreachable server is skipped; a negative number counts as 0. */
void fr_sqlpool_down_time_set(int seconds);

/* How many seconds a slave may be behind its master. Skips one that is further behind, or whose
 * replication stopped longer ago. A slave is asked every two seconds at most. A negative number, as
 * at the start, uses slaves whatever their lag, and asks none. */
void fr_sqlpool_largest_lag_set(int seconds);

/* Parses "id:user:password:database" (the password may hold colons). The shard is the caller's
 * until fr_sqlpool_shard_add takes it; NULL, logged, when a field is missing. */
fr_sql_shard_t *fr_sql_shard_parse_info(const char *value);
/* For a shard that was never added. NULL is ignored. */
void fr_sql_shard_free(fr_sql_shard_t *shard);

/* Registers a shard and owns it from then on, on failure too. 0, or -1 when its id is there. */
int fr_sqlpool_shard_add(fr_sql_shard_t *shard);

/* Reads the DB_MASTER and DB_SLAVE lines ("id:host:port"; a host that begins with "/" is a Unix
 * socket and its port is not used; IPv6 hosts keep their colons) and gives each server to the
 * shard of its id. `reserved` must be NULL; `need_master` non-zero makes a file that names no
 * master a failure. 0, or -1. */
int fr_sql_shard_parse_connection_info(const char *path, const void *reserved, int need_master);

/* A session on a shard, with a live connection of its own; NULL when there is no such shard or none
 * of its servers answers. Release with fr_sqlpool_conn_free. */
fr_sql_conn_t *fr_sqlpool_conn_get(int shard);

/* Gives a session back; a connection that died is closed, not kept. NULL is ignored. */
void fr_sqlpool_conn_free(fr_sql_conn_t *session);

/* Closes the kept connections and forgets all shards; sessions that are out stay usable and are
 * closed when they come back. 0. */
int fr_sqlpool_destroy(void);

/* Formats a statement and runs it. With `store` non-zero, which it must be, the whole result is
 * read: *result is the caller's (mysql_free_result), or NULL for a statement that gives none.
 * 0, or non-zero on failure, with *result NULL; mysql_error of the session's connection then has
 * the reason. */
int fr_sql_conn_query(fr_sql_conn_t *session, int store, MYSQL_RES **result, const char *format,
                      ...) __attribute__((format(printf, 4, 5)));

/* The same with a va_list, which is used up. */
int fr_sql_conn_vquery(fr_sql_conn_t *session, int store, MYSQL_RES **result, const char *format,
                       va_list arguments) __attribute__((format(printf, 4, 0)));

/* The connection that the last statement used, for mysql_error; borrowed, never NULL for a
 * session. */
MYSQL *fr_sql_conn_get_mysql(fr_sql_conn_t *session);

#ifdef __cplusplus
}
#endif

#endif
