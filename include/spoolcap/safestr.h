/* SafeStr: a counted string whose handle points at its NUL-terminated text, so that it can be
 * printed and compared like any other. It may hold NUL bytes before its end. No shared state: safe
 * from several threads on different strings. */
#ifndef SPOOLCAP_SAFESTR_H
#define SPOOLCAP_SAFESTR_H

#include <stddef.h>

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

typedef char *safestr_t;

/* A copy of `length` bytes, or of the whole NUL-terminated text; NULL on NULL or short memory.
 * Release with safestr_free. */
safestr_t safestr_create(const char *text, size_t length);
safestr_t safestr_dup(const char *text);

/* Bytes before the terminator; 0 for NULL. */
size_t safestr_length(const char *safestr);

/* NULL is ignored. Only for what safestr_create or safestr_dup gave. */
void safestr_free(safestr_t safestr);

SPOOLCAP_END_DECLARATIONS

#endif
