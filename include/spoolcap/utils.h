/* Helpers around Asterisk, in three groups: readers for its configuration files ("key => value"
 * lines, optionally grouped under [section] headers), its remote console, and small checks of files
 * and names.
 *
 * Results of type safestr_t are the caller's (safestr_free). A NULL argument is a failure, unless
 * the function says otherwise. No shared state: safe from several threads on different arrays and
 * descriptors. */
#ifndef SPOOLCAP_UTILS_H
#define SPOOLCAP_UTILS_H

#include <stddef.h>

#include <spoolcap/declarations.h>
#include <spoolcap/safestr.h>

SPOOLCAP_BEGIN_DECLARATIONS

struct passwd;
struct group;

/* --- Configuration files --- */

/* Reads keys of one section, or with a NULL `section` of the whole file. `keys` is NULL-ended. The
 * caller sets values[i] to NULL; it takes the value of keys[i], if there is one that is not empty.
 * "=>" and "=" separate; a line that starts with "#" is a comment. Matching is exact; the last
 * value of a key wins. Text after a value, comments included, belongs to it. 0, or -1 when the file
 * cannot be opened or memory is short. */
int get_astconf_section_values(const char *path, const char *section, const char *const *keys,
                               safestr_t *values);

/* The same without sections, comments or "=": every line with "=>" counts. Lines above 1023 bytes
 * are read in pieces. Sets values[0..count-1] to NULL first. */
int get_astconf_values(const char *path, const char *const *keys, safestr_t *values, int count);

/* 1 when the line is NULL, blank, or after white space begins with `c1`, then `c2` unless 0;
 * else 0. */
int is_ignorable(const char *line, char c1, char c2);

/* Copies the leading run of bytes out of `chars` (NULL: blank and tab) into `dst`, at most
 * dst_len - 1 of them and a terminator; returns `dst`, also when it is NULL. A NULL line has no
 * padding. */
char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars);

/* The comment that begins at the first `marker`, with the white space before it. If all before it
 * is white space, the first byte of the line is left out. With `dst`: copied there, at most dst_len
 * bytes, without a terminator when they are used up; without: a pointer into `line`. Empty without
 * a marker in the line, and for a NULL line or marker. */
const char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker);

/* --- Remote console --- */

/* Runs "<asterisk_binary> -rx <command>" without a shell, in this process's environment, and waits
 * for the end of its output. Drops output and exit status. 0; -1 for a NULL command or when it
 * cannot be started. Output that pauses for 5 seconds has ended. A command that still runs a second
 * later goes on unheard; a later call reaps it. No signal handling is changed. */
int rasterisk(const char *asterisk_binary, const char *command);

/* Connects to the console's Unix-domain socket within 10 seconds. A blocking close-on-exec
 * descriptor, which the caller closes, or a negative value with errno. */
int ast_connect(const char *path);

/* Sends a command over a fresh connection, after the console's greeting (up to 80 bytes). Each of
 * the two may take 10 seconds. With `wait` non-zero, copies the output to standard output until
 * nothing comes for 100 ms or 5 seconds have passed. It checks that after chunks that end a line: a
 * console that stops within a line holds the caller until it goes on or hangs up. 0; -1 for a
 * descriptor of 0 or less, a failed read or write, or a console that hangs up during the output. */
int ast_runcmd(int fd, const char *command, int wait);

/* Copies one chunk of output to standard output and waits for it without a time limit. A chunk ends
 * with a read (up to 511 bytes) whose last or second-to-last byte is a newline.
 *    0  *out is 4 (end of transmission)
 *   -1  wait or read failed (a failed wait also on standard error), or hang-up; *out untouched */
int ast_el_read_char(int fd, char *out);

/* --- Files and names --- */

/* Writes `length` bytes, signals or not. Returns how many: fewer only when the system accepts no
 * more. -1 on an error. May raise SIGPIPE. */
int write_safe(int fd, const void *buffer, int length);

/* WARNING: does not read. It is write_safe under another name and WRITES `buffer` to the
 * descriptor; kept for its callers. */
int read_safe(int fd, const void *buffer, int length);

/* 1 when both exist and the path, with links resolved, begins with the resolved directory, else 0.
 * Only texts are compared: /srv/ab counts as inside /srv/a. */
int check_subdir_of(const char *path, const char *directory);

/* `number` in at least `width` digits, padded with zeros on the left; never cut. NULL for a
 * negative number and for a width of 0 or less. */
safestr_t pad(int number, int width);

/* What follows the last "." of a name; NULL without a "." and when nothing follows. `name` here and
 * below must be a SafeStr. */
safestr_t get_extension(const char *name);

/* 1 when the name's extension is one of the NULL-ended list, else 0. ASCII case counts only with
 * `case_sensitive` non-zero. */
int validate_file_ext(const char *name, const char *const *extensions, int case_sensitive);

/* 1 when all bytes are letters, digits (the isalnum class) or "_", and exactly `length` of them if
 * that is above 0; else 0. */
int validate_alnum(const char *text, int length);

/* Free a copied entry: its texts and member list, each malloc'ed, and itself. NULL, also of a text,
 * is ignored. Not for results of getpwnam and getgrnam. */
void free_pw_nam(struct passwd *entry);
void free_gr_nam(struct group *entry);

/* Name and version of this product, malloc'ed; NULL when memory is short. */
char *get_version_string(void);

SPOOLCAP_END_DECLARATIONS

#endif
