/* Lookups of one account (a row of `client`): parent, level, status, name, extensions, storage
 * limits. All read through the cache. Strings and arrays are malloc'ed and the caller's. Safe from
 * several threads; a session that is passed in is used only during the call. */
#ifndef SPOOLCAP_ZARN_USER_H
#define SPOOLCAP_ZARN_USER_H

#include <stddef.h>

#include <spoolcap/declarations.h>
#include <spoolcap/sqlsession.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* The parent's id as text, empty when the account has none; NULL when it is not known. */
char *qx_account_get_parent_str_sess(SessionHandle session, int account_id);

/* The parent's id; -1 when the account has none, -2 when it is not known. */
int qx_account_get_parent_sess(SessionHandle session, int account_id);

/* The level (0, 10, 50, 100), negative when it is not known. */
int qx_account_get_level_sess(SessionHandle session, int account_id);
int qx_account_get_level(int account_id);

/* The platform's status codes, -1 when not known. The first phone status that comes from the
 * database is reduced to its last two digits; from then on the cache gives the whole number. */
int qx_user_get_status(int account_id);
int qx_user_get_phonestatus(int account_id);

/* The name, NULL when it is not known. */
char *qx_account_get_name_sess(SessionHandle session, int account_id);
char *qx_account_get_name(int account_id);

/* The account's extensions: short numbers when numbers_only is non-zero, else full numbers, NULL
 * for each that is not known. *count is their number. Without any, the result is NULL and *count is
 * what the cache left there. The caller frees each and the array. */
char **qx_user_get_extensions_sess(SessionHandle session, const char *parent_id, int account_id,
                                   int numbers_only, size_t *count);

/* `count` preferences by the names that `client_prefs` has for them, NULL where the account has
 * none; NULL when they cannot be read. Release with rget_free_vals. */
char **qx_account_get_prefs(int account_id, int count, const char *const *names);

/* One of those that the cache has a place for (storage limits, concurrency limits); NULL for any
 * other name, without a look at cache or database. */
char *qx_account_get_pref(int account_id, const char *name);

SPOOLCAP_END_DECLARATIONS

#endif
