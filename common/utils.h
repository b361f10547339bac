/* Readers for Asterisk-style configuration files: "key => value" lines, optionally grouped under
 * [section] headers. Strings that the readers hand back are SafeStr values of the caller's
 * (safestr_free). No shared state: safe from several threads on different arrays. */
#ifndef COMMON_UTILS_H
#define COMMON_UTILS_H

#include <stddef.h>

#include "base/safestr.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Reads keys of one section (or of the whole file when `section` is NULL). `keys` is NULL-ended;
 * values[i] takes the value of keys[i]: the caller passes it NULL, and it stays NULL when the key
 * is not there or has an empty value. "=>" and "=" both separate; a line that starts with "#" is
 * a comment; the last value of a key wins; matching is exact; text after a value, comments
 * included, belongs to it. 0, or -1 when the file cannot be opened. */
int get_astconf_section_values(const char *path, const char *section, const char *const *keys,
                               safestr_t *values);

/* The same without sections, comments or "=": every line with "=>" counts, lines longer than 1023
 * bytes are taken in pieces, and values[0..count-1] are set to NULL first. 0, or -1 when the file
 * cannot be opened. */
int get_astconf_values(const char *path, const char *const *keys, safestr_t *values, int count);

/* 1 when the line is blank or, after leading white space, begins with `c1` (followed by `c2` when
 * that is not 0), else 0. */
int is_ignorable(const char *line, char c1, char c2);

/* Copies the leading run of bytes out of `chars` (NULL: blank and tab) into `dst`, at most
 * dst_len - 1 of them and a terminator; returns `dst`. */
char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars);

/* The comment that begins at the first `marker`, with the white space before it (less the first
 * byte of the line when all before the marker is white space). With `dst`: copied there, at most
 * dst_len bytes and without a terminator when they are used up; without: a pointer into `line`.
 * No marker gives an empty text. */
const char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
