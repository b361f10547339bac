/* Lookups of extensions. Strings are malloc'ed and the caller's. Safe from several threads; a
 * session that is passed in is used only during the call. */
#ifndef MAIN_ZARN_EXTENSION_H
#define MAIN_ZARN_EXTENSION_H

#include "sqlsession.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The full number of an extension, from its short number and the id of its owner's parent as text;
 * NULL when there is none, an argument is NULL, or the database fails. Asks the database only. The
 * arguments go into the statement as they are. */
char *qx_get_full_number(const char *parent_id, const char *number);
char *qx_get_full_number_sess(SessionHandle session, const char *parent_id, const char *number);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
