/* The database's records of stored media files. The table is always an argument:
 * extension_recording, extension_voicemail or extension_fax_center. Each call takes a session of
 * its own. Safe from several threads on different lists.
 *
 * WARNING: every text, tables and columns too, goes into the statements unescaped. Check each that
 * comes from outside. A NULL is a failure, unless the function allows it. */
#ifndef SPOOLCAP_ZARN_DB_FILES_H
#define SPOOLCAP_ZARN_DB_FILES_H

#include <stdint.h>

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Bytes that a table holds for one account; 0 without files, -1 on failure.
 *   100     of its own extensions
 *   50, 10  of all users below it
 *   0       of the whole table, given with its alias: "extension_recording as er"
 *   other   0 */
int64_t qx_get_db_files_quota(const char *table, int level, const char *account_id);

/* One stored file. Texts are malloc'ed and belong to the record's list. */
typedef struct qx_db_file {
  uint64_t id;
  int64_t filesize; /* bytes; 0 where the database has no size */
  char *ext;        /* never NULL in a record that qx_list_db_files gave */
  char *filename;   /* may be NULL, as may the next two */
  char *se;         /* columns se and az of the row, unchanged */
  char *az;
} qx_db_file_t;

/* A list is the caller's: one of its own that begins as {NULL, 0}, or one that a call allocated. */
typedef struct qx_db_file_list {
  qx_db_file_t *records;
  uint64_t count;
} qx_db_file_list_t;

/* The files of an extension; `folder` (NULL: all) must match, `order_by` (NULL: any order) follows
 * ORDER BY. A NULL *list is allocated, another one reset and used again. Release it with
 * qx_release_db_files, also after a failure: that leaves it empty, or unchanged for a NULL
 * argument. Faxes have the extension "pdf" and the name of the column file_name. Returns the number
 * of records, which may be 0, or -1. */
int64_t qx_list_db_files(const char *table, int extension_id, const char *folder,
                         const char *order_by, qx_db_file_list_t **list);

/* The files that a text names, "12.wav 15.gsm": id, dot, extension, with blanks between them. The
 * list is handled as above; returns the number of records, or -1. Each dot of the text makes one
 * record, with id and extension in the order of the text. The rows then fill size, name, se and az
 * in the same order, from the first record on. WARNING: an id without a row, or given twice, moves
 * the data of all that follow one record forward. Records left over stay zero and NULL, as do those
 * of further dots within an extension. The statement fails for a name without a dot that is not the
 * last, and for extension_fax_center, which has no column `filename`. No dot gives no records. */
int64_t qx_parse_db_files(const char *table, const char *names, qx_db_file_list_t **list);

/* How many files an extension has, in a folder or (NULL) in all; -1 on failure. */
int64_t qx_count_db_files(const char *table, int extension_id, const char *folder);

/* Frees the records; the list is {NULL, 0} then. NULL is ignored. */
void qx_reset_db_files(qx_db_file_list_t *list);

/* Frees records and list, and makes *list NULL. NULL, and a NULL list, are ignored. */
void qx_release_db_files(qx_db_file_list_t **list);

/* Deletes a row; the file itself is not touched. 0, also when there is no such row, or -1. */
int qx_delete_db_file(const char *table, uint64_t id);

/* Sets one column of a row. 0, also when there is no such row, or -1. */
int qx_db_file_set_meta(const char *table, uint64_t id, const char *column, const char *value);

/* The time in a column of a row, in seconds since the epoch; 0 when there is none and on failure.
 */
uint64_t qx_db_file_creation_timestamp(const char *table, uint64_t id, const char *column);

/* The newest recording id (`rid`) of a call in one direction at an extension, by its full number;
 * -1 when there is none and on failure. */
int qx_get_db_recording(const char *call_id, const char *flow, const char *full_number);

SPOOLCAP_END_DECLARATIONS

#endif
