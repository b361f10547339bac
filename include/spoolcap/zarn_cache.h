/* The read-through layer between the platform's lookups and its two stores, the distributed cache
 * and the database.
 *
 * A lookup reads a field of a cache hash. On a miss it asks the database and writes the answer
 * back. A missing row and a NULL column are written as markers, so that negative answers are cached
 * too. Cache trouble never stops a lookup: a failed read is a miss, a failed write is only logged.
 *
 * A key is the text that its printf format makes. Values hold any bytes but NUL. Returned strings
 * and arrays are malloc'ed and the caller's. The cache client is created at the first use and kept;
 * only qx_storage_initialize replaces it. Safe from several threads. */
#ifndef SPOOLCAP_ZARN_CACHE_H
#define SPOOLCAP_ZARN_CACHE_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Markers: the database has no such row; the row's column is NULL. */
#define QX_CACHE_NO_ROW "_NR_"
#define QX_CACHE_NULL "_NL_"

/* Bits of keep_markers: hand this marker out instead of NULL. */
enum { QX_KEEP_NULL = 1, QX_KEEP_NO_ROW = 2 };

/* Where the cache keeps a parameter. A table of these is sorted by name, ignoring case. */
typedef struct cache_binding {
  const char *name;       /* the parameter or column as the database spells it */
  const char *key_format; /* key of the hash; one %s, one %d, or no conversion */
  int persistent;         /* non-zero: on the client itself; 0: on its secondary handle */
  const char *field;      /* field of the hash */
} cache_binding;

/* Brackets around every use of the cache client, the place for a reader-writer lock. Their bodies
 * are empty. */
void ast_cache_rdlock(void);
void ast_cache_wrlock(void);
void ast_cache_unlock(void);

/* All entries of a hash joined with ","; NULL when the read failed or the hash is empty. */
char *rgetall_hash_comma(int persistent, const char *key_format, ...)
    __attribute__((format(printf, 2, 3)));

/* `count` fields of one hash, NULL where absent. NULL when count is not positive, an argument is
 * NULL or the read failed. Release with rget_free_vals. */
char **rmget_hash(int persistent, int count, const char *const *fields, const char *key_format, ...)
    __attribute__((format(printf, 4, 5)));

/* Frees `count` strings and their array; a NULL array is ignored. */
void rget_free_vals(int count, char **values);

/* Writes `count` fields of one hash. 0 once the write was attempted, also when it failed; -1 for
 * a negative count or a NULL argument. */
int rmset_hash(int persistent, int count, const char *const *fields, const char *const *values,
               const char *key_format, ...) __attribute__((format(printf, 5, 6)));

/* Order of two bindings by name, ignoring case; for bsearch and qsort. */
int compare_entries(const void *left, const void *right);

/* The row of this name, ignoring case, or NULL; borrowed from the table. */
const cache_binding *get_binding(int row_count, const cache_binding *table, const char *name);

/* One value through the cache. Both formats take the argument as their only one (%s, or %d in the
 * second form). The argument goes into the statement unescaped. NULL when there is no value. A NULL
 * argument or an id that is not positive gives NULL without a look at cache or database. */
char *drget_hash(int persistent, const char *field, const char *sql_format, const char *key_format,
                 const char *argument, int keep_markers);
char *drget_hash_by_id(int persistent, const char *field, const char *sql_format,
                       const char *key_format, int id, int keep_markers);

/* `count` named parameters through the cache, and through one statement for all that is missing.
 * Name each parameter once: the database's value goes to the first of equal names. The others count
 * as missing rows, in the cache too.
 * Row mode (column_mode 0): the statement takes (argument, quoted names) and gives rows of
 * (parameter, value). Column mode: it takes (names, argument) and gives one row with a column per
 * name. A NULL argument is left out; otherwise it is escaped. numeric_arg builds cache keys from
 * the argument as a number. An array of count values, NULL where there is none; NULL on bad
 * arguments, or when the database was needed and failed. Release with rget_free_vals. */
char **drmget_hash(int binding_count, const cache_binding *bindings, int count,
                   const char *const *names, const char *sql_format, const char *argument,
                   int numeric_arg, int column_mode, int keep_markers);

/* Non-zero when the value must not be written: an absent-row marker is never the first entry of a
 * non-persistent hash. */
int check_add_norows_to_missing_persistent(const char *key, int persistent, const char *value);

/* Frees *value and sets it to NULL when it is a marker that keep_markers does not keep. */
void filter_cache_return(char **value, int keep_markers);

SPOOLCAP_END_DECLARATIONS

#endif
