/* Text helpers of the base library. All results are malloc'ed and the caller's. */
#ifndef PLATFORM_BASE_STR_H
#define PLATFORM_BASE_STR_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sides for fr_str_trim; both together are mode 3. */
enum { FR_TRIM_START = 1, FR_TRIM_END = 2, FR_TRIM_BOTH = 3 };

/* Removes white space (the standard isspace class) in place at the sides told; returns `text`.
 * NULL gives NULL. */
char *fr_str_trim(char *text, int mode);

/* Splits `text` at every `separator`; empty fields are kept, so a text without a separator gives
 * one field. A NULL-ended array; its length is stored in `count` when that is not NULL. NULL on
 * a NULL text. Release with fr_explode_free. */
char **fr_explode(const char *text, char separator, size_t *count);

/* NULL is ignored. */
void fr_explode_free(char **fields);

/* Fields `first` to `last` (both included) of an array, joined with `separator`; NULL when first
 * is beyond last or a pointer is NULL. Release with free. */
char *fr_implode(char *const *fields, size_t first, size_t last, char separator);

/* Standard base64 of `length` bytes in one line without a newline, with padding; "" for none.
 * NULL when data is NULL or memory is short. Release with free. */
char *base64_enc_str(const void *data, size_t length);

#ifdef __cplusplus
}
#endif

#endif
