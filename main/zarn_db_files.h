/* The database's records of stored media files. The table is always an argument:
 * extension_recording, extension_voicemail or extension_fax_center. Each call takes a session of
 * its own. Safe from several threads. */
#ifndef MAIN_ZARN_DB_FILES_H
#define MAIN_ZARN_DB_FILES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Bytes that a table holds for one account: for a level of 100 its own extensions', for 50 and 10
 * those of all users below it, for 0 the whole table, which must then be given with its alias
 * ("extension_recording as er"); 0 for any other level and when there are no files. -1 on failure.
 * Table and account id go into the statement as they are. */
int64_t qx_get_db_files_quota(const char *table, int level, const char *account_id);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
