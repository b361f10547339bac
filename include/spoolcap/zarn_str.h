/* String helpers of the platform.
 *
 * Results that are strings are malloc'ed and the caller's (free); lists are NULL-ended arrays of
 * such strings (zarn_str_freelist). Functions that change a string in place take the address of
 * the caller's pointer and may move it. No shared state: safe from several threads on different
 * strings. */
#ifndef SPOOLCAP_ZARN_STR_H
#define SPOOLCAP_ZARN_STR_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* The bytes from `start` up to `end`, each bound brought inside the text; NULL for a NULL text or
 * a start beyond the end. */
char *zarn_str_slice(const char *str, int start, int end);

/* Fields between occurrences of `sep`: empty fields are kept, but nothing after a trailing
 * separator. NULL for a NULL argument or an empty separator. */
char **zarn_str_split(const char *str, const char *sep);
char **zarn_str_split_char(const char *str, char ch);

/* 0, or -1 for NULL. */
int zarn_str_freelist(char **list);

/* Appends formatted text to *dst, which may be NULL, and returns the new *dst; NULL, with *dst as
 * it was, when dst or the format is NULL or memory is short. */
char *zarn_str_append(char **dst, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Replaces every occurrence of `from`, left to right. 0; -1 for NULL arguments or an empty
 * `from`. */
int zarn_str_replace(char **str, const char *from, const char *to);

/* Strips bytes 1 to 32 at the start (mode bit 1) and at the end (bit 2). 0, or -1 for NULL. */
int zarn_str_trim(char **str, int mode);

/* Removes up to `count` bytes at `pos`. Always -1, success included: the result says nothing. */
int zarn_str_delete(char **str, int pos, int count);

/* Inserts `text` at `pos`, 0 to the length. 0; -1 for NULL arguments or a position outside. */
int zarn_str_insert(char **str, int pos, const char *text);

/* The elements with `sep` (may be NULL or empty) between them; NULL for an empty or NULL list. */
char *zarn_str_join(char *const *list, const char *sep);

/* A copy with the ASCII letters converted; NULL for NULL. */
char *zarn_str_toupper(const char *str);
char *zarn_str_tolower(const char *str);

enum { ZARN_CASE_UPPER = 1, ZARN_CASE_LOWER = 2, ZARN_CASE_NAME = 4 };

/* Converts in place by one of the modes above; any other mode changes nothing. 0, -1 for NULL. */
int zarn_str_convert(char *str, int mode);

/* `id`, not negative, in exactly `width` digits: padded with zeros on the left, or cut to its
 * lowest digits. NULL for width 0. */
char *ast_pad_id(int id, unsigned width);

/* Bytes of the UTF-8 character that begins with this byte; 1 for a byte that begins none. */
int zarn_utf8_get_char_length(unsigned char byte);

/* A folded mail header: `name`, `text` as RFC 2047 "B" encoded words in `charset`, and, when not
 * NULL, the address in angle brackets on a line of its own: two blanks, "<address>". An empty text
 * leaves the address to the line of the name. Neither text nor address give an empty result. Every
 * line ends in a newline and has up to 78 columns; those that cannot (a long name or charset, an
 * address of more than 72 bytes) are longer, and nothing is lost. NULL for a NULL name, charset or
 * text. */
char *zarn_base64_encode_email_header(const char *name, const char *charset, const char *text,
                                      const char *address);

/* The id of this node: first line of its file without trailing blanks and control characters;
 * NULL when the file is absent or empty. */
char *get_nodeid(void);

/* Sleeps this many seconds, signals or not. 0, or -1 on an error. */
int zarn_sleep(float seconds);

/* Now, in seconds since the epoch, with microseconds. */
double qx_get_tstamp(void);

SPOOLCAP_END_DECLARATIONS

#endif
