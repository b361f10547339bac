/* Readers of the platform's directive files: a keyword, blank space, a value.
 *
 * The line rules of two families differ on purpose:
 *             string value, multi-directive     credentials, worker, host
 *   keyword   start of line, ignoring case      anywhere, by case
 *   comment   a line that begins with "#"       from the first "#" on
 *   line      up to 8191 bytes                  up to 255 bytes
 * Longer lines are read in pieces that count as lines. Values are trimmed of white space.
 *
 * Results are 0 for success, -1 for failure, out of memory included. Strings handed out are
 * malloc'ed and the caller's. No state is kept between calls: safe from several threads. */
#ifndef SPOOLCAP_ZARN_CONFIG_PARSER_H
#define SPOOLCAP_ZARN_CONFIG_PARSER_H

#include <stdint.h>
#include <stdio.h>

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* A directive and the values found for it. A table of these ends with a row whose name is NULL;
 * rows start with count 0 and values NULL, and the module owns what it puts there. */
struct qx_conf_directive {
  const char *name;
  int32_t count;
  char **values;
};

/* The first value of a keyword, which a blank must follow. A string that *value holds is freed
 * first. 0 when the file was read, with *value NULL when the keyword is not there; -1 when value
 * is NULL or the file cannot be opened. */
int qx_conf_parse_string_value(const char *keyword, const char *path, char **value);

/* The three fields after the id of the "id:field1:field2:field3" line with this id. A NULL keyword
 * means DB_CREDENTIALS; outputs that are NULL are not wanted. -1 when there is none, and at the
 * first line that does not have four fields. */
int qx_conf_parse_db_cred(const char *keyword, const char *path, const char *id, char **field1,
                          char **field2, char **field3);

/* The value of the first line of a keyword (NULL: WORKER_EXCHANGE). What *value held is not
 * freed; value must not be NULL. */
int qx_conf_parse_worker(const char *keyword, const char *path, char **value);

/* Host and port of the "id:host:port" line with this id; the host may hold colons. Outputs that
 * are NULL are not wanted. -1 when there is none, at the first line with fewer fields, and
 * without looking when the id or the keyword is NULL. */
int qx_conf_parse_db_host_custom(const char *path, const char *id, const char *keyword, char **host,
                                 int32_t *port);

/* The same for DB_MASTER (is_master non-zero) or DB_SLAVE. */
int qx_conf_parse_db_host(const char *path, const char *id, int is_master, char **host,
                          int32_t *port);

/* All values of all directives of a table, over one file or a NULL-ended list of files, in the
 * order found. What the table held is released first. A name is a prefix: no separator is needed
 * after it. A file that cannot be opened is logged and skipped. -1 with errno EINVAL when the
 * table or the list is NULL; a NULL path is an empty list. */
int qx_conf_parse_multi_directives(struct qx_conf_directive *table, const char *path);
int qx_conf_parse_multi_directives_multi_files(struct qx_conf_directive *table,
                                               const char *const *paths);

/* The same for one open file, adding to what the table holds; 0, or -1 when memory is short. */
int qx_conf_parse_multi_directives_handle_file(FILE *file, struct qx_conf_directive *table);

/* Frees the values of every row and empties it. */
void qx_conf_parse_multi_directives_free_data(struct qx_conf_directive *table);

SPOOLCAP_END_DECLARATIONS

#endif
