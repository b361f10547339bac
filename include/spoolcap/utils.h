/* Helpers around Asterisk, in three groups: readers for its configuration files ("key => value"
 * lines, optionally grouped under [section] headers), its remote console, and small checks of files
 * and names.
 *
 * Results of type safestr_t are the caller's (safestr_free). NULL as an argument gives the failure
 * that the function has; where it has none, or takes NULL for something else, it says so. No shared
 * state: safe from several threads on different arrays and descriptors. */
#ifndef SPOOLCAP_UTILS_H
#define SPOOLCAP_UTILS_H

#include <stddef.h>

#include <spoolcap/declarations.h>
#include <spoolcap/safestr.h>

SPOOLCAP_BEGIN_DECLARATIONS

struct passwd;
struct group;

/* --- Configuration files --- */

/* Reads keys of one section (or of the whole file when `section` is NULL). `keys` is NULL-ended;
 * values[i] takes the value of keys[i]: the caller passes it NULL, and it stays NULL when the key
 * is not there or has an empty value. "=>" and "=" both separate; a line that starts with "#" is
 * a comment; the last value of a key wins; matching is exact; text after a value, comments
 * included, belongs to it. 0, or -1 when the file cannot be opened or memory is short. */
int get_astconf_section_values(const char *path, const char *section, const char *const *keys,
                               safestr_t *values);

/* The same without sections, comments or "=": every line with "=>" counts, lines longer than 1023
 * bytes are taken in pieces, and values[0..count-1] are set to NULL first. 0, or -1 when the file
 * cannot be opened or memory is short. */
int get_astconf_values(const char *path, const char *const *keys, safestr_t *values, int count);

/* 1 when the line is blank (or NULL) or, after leading white space, begins with `c1` (followed by
 * `c2` when that is not 0), else 0. */
int is_ignorable(const char *line, char c1, char c2);

/* Copies the leading run of bytes out of `chars` (NULL: blank and tab) into `dst`, at most
 * dst_len - 1 of them and a terminator; returns `dst`. A NULL line has no padding; a NULL `dst` is
 * returned as it is. */
char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars);

/* The comment that begins at the first `marker`, with the white space before it (less the first
 * byte of the line when all before the marker is white space). With `dst`: copied there, at most
 * dst_len bytes and without a terminator when they are used up; without: a pointer into `line`.
 * No marker in the line gives an empty text, as do a NULL line and a NULL marker. */
const char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker);

/* --- Remote console --- */

/* Runs "<asterisk_binary> -rx <command>" without a shell and waits for the end of its output, which
 * is dropped, as is its exit status. Its environment is this process's. 0; -1 for a NULL command or
 * when it cannot be started. Output that pauses for 5 seconds counts as ended; a command that still
 * runs a second later goes on without being listened to, and its process is reaped at a later call.
 * No signal handling is changed. */
int rasterisk(const char *asterisk_binary, const char *command);

/* A connection to the console's Unix-domain socket, made within 10 seconds: a close-on-exec
 * descriptor in blocking mode, the caller's to close, or a negative value with errno set. */
int ast_connect(const char *path);

/* Sends a command over a fresh connection, after the console's greeting (up to 80 bytes) came; each
 * of the two may take 10 seconds. With `wait` non-zero the output is then copied to standard output
 * until nothing comes for 100 ms or 5 seconds have passed, looked at after every chunk that ends a
 * line: a console that stops in the middle of one holds the caller until it goes on or hangs up.
 * 0; -1 for a descriptor of 0 or less, a failed read or write, and a console that hangs up while
 * its output is waited for. */
int ast_runcmd(int fd, const char *command, int wait);

/* Copies one chunk of output to standard output, waiting for it without a time limit: everything up
 * to a read (of up to 511 bytes) whose last or second-to-last byte is a newline. 0, and *out is 4
 * (end of transmission); -1, and *out is untouched, when the wait or a read failed or the console
 * hung up. A failed wait is also told on standard error. */
int ast_el_read_char(int fd, char *out);

/* --- Files and names --- */

/* Writes `length` bytes, signals or not, and returns how many were written: fewer only when the
 * system takes no more of them. -1 on an error. May raise SIGPIPE. */
int write_safe(int fd, const void *buffer, int length);

/* WARNING: does not read. It is write_safe under another name and WRITES `buffer` to the
 * descriptor; kept for its callers. Whoever wants to read must not use it. */
int read_safe(int fd, const void *buffer, int length);

/* 1 when both exist and the path, with links resolved, begins with the resolved directory, else 0.
 * Only texts are compared: /srv/ab counts as inside /srv/a. */
int check_subdir_of(const char *path, const char *directory);

/* `number` in at least `width` digits, padded with zeros on the left; never cut. NULL for a
 * negative number and for a width of 0 or less. */
safestr_t pad(int number, int width);

/* What follows the last "." of a name; NULL when there is none or nothing follows it. `name` here
 * and below must be a SafeStr, not any text. */
safestr_t get_extension(const char *name);

/* 1 when the name's extension is one of the NULL-ended list, else 0. ASCII case counts only with
 * `case_sensitive` non-zero. */
int validate_file_ext(const char *name, const char *const *extensions, int case_sensitive);

/* 1 when all bytes are letters, digits (the isalnum class) or "_" and, with a `length` above 0,
 * there are exactly so many; else 0. An empty text passes where no length is asked for. */
int validate_alnum(const char *text, int length);

/* Free a copied entry whose texts, and for a group the member list, are malloc'ed one by one, as is
 * the entry. Not for what getpwnam and getgrnam give. NULL, also of a text, is ignored. */
void free_pw_nam(struct passwd *entry);
void free_gr_nam(struct group *entry);

/* Name and version of this product, malloc'ed; NULL when memory is short. */
char *get_version_string(void);

SPOOLCAP_END_DECLARATIONS

#endif
