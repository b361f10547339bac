/* Lookups of extensions, and of the system parameters that shape their numbers.
 *
 * A full number is the owner part, a separator of one character, and the extension's short number
 * of a fixed length: "0003*101".
 *
 * Unless it says otherwise, a function reads through the cache and puts its arguments into
 * statements unescaped: never pass text from outside. Strings and arrays are malloc'ed and the
 * caller's. A NULL number or name is an unknown extension. Safe from several threads. A session may
 * be NULL; it is used only during the call. */
#ifndef SPOOLCAP_ZARN_EXTENSION_H
#define SPOOLCAP_ZARN_EXTENSION_H

#include <time.h>

#include <spoolcap/declarations.h>
#include <spoolcap/sqlsession.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* --- Numbers ---------------------------------------------------------------------------------- */

/* The full number of a short number and its owner's parent, an id as text. NULL without one, for a
 * NULL argument, and when the database fails. Asks the database only. */
char *qx_get_full_number(const char *parent_id, const char *number);
char *qx_get_full_number_sess(SessionHandle session, const char *parent_id, const char *number);

/* The two parts of a full number, by the length and the separator in force; an out may be NULL.
 * 0; -1 with untouched outs for a number of another form, or without length or separator. */
int qx_split_full_number(const char *full_number, char **owner, char **number);

/* The owner part as text, or NULL. */
char *qx_get_extension_owner_str(const char *full_number);

/* An account id in the form of an owner part: four digits at least, zeros in front. */
char *qx_get_padded_account_id(int account_id);

/* Between alias and full number; NULL when there is none. They ask the database only. */
char *qx_get_extension_from_alias_sess(SessionHandle session, const char *alias);
char *qx_get_alias_from_full_number(SessionHandle session, const char *full_number);

/* The number behind a virtual phone; NULL for any other number. Asks the cache only. */
char *qx_get_extension_virtphone(const char *number);

/* 1 when the cached index of its owner part has the extension, else 0. Asks the cache only: an
 * extension that is not indexed yet counts as missing. */
int qx_extension_exists(const char *full_number);

/* --- Ids -------------------------------------------------------------------------------------- */

/* The ids of the extension, its user (the account that owns it) and its organisation (the user's
 * parent). An out may be NULL; it becomes -1 when not known. 0; -1 when the extension is not known,
 * which is not cached. The number is escaped. */
int qx_get_extension_ids_sess_internal(SessionHandle session, const char *full_number,
                                       int *extension_id, int *user_id, int *organisation_id);
int qx_get_extension_ids_sess(SessionHandle session, const char *full_number, int *extension_id,
                              int *user_id, int *organisation_id);
int qx_get_extension_ids(const char *full_number, int *extension_id, int *user_id,
                         int *organisation_id);

/* One of them, -1 when it is not known. The owner is the organisation. */
int qx_get_extension_id(const char *full_number);
int qx_get_extension_usrid(const char *full_number);
int qx_get_extension_usrid_sess(SessionHandle session, const char *full_number);
int qx_get_extension_orgid(const char *full_number);
int qx_get_extension_owner(const char *full_number);

/* The user's id, -1 when it is not known. Asks the database only. */
int qx_get_extension_usrid_from_extid(int extension_id);

/* The name of the user, or NULL. */
char *qx_get_user_name_from_number(SessionHandle session, const char *full_number);

/* Ids of the accounts below an account that own extensions (level 100); of such an account, its
 * own. A non-zero flag adds the resellers and clients between them, level by level. The array ends
 * with -1; release with free. NULL for an unknown account or a failed database: never a part of the
 * ids. Asks the database only. */
int *qx_get_extensions_of(int account_id, int flag);

/* --- Preferences and system parameters -------------------------------------------------------- */

/* `count` preferences of an extension, named as in `extension_prefs`, NULL where there is none.
 * NULL when they cannot be read. Release with qx_free_string_array. Escapes the number, not the
 * names. */
char **qx_extension_get_prefs(const char *full_number, int count, const char *const *names);

/* One preference, or NULL. The second form asks the database only. */
char *qx_extension_get_pref(const char *full_number, const char *name);
char *qx_extension_get_pref_by_id(int extension_id, const char *name);

/* The same of the system parameters, named as in `misc`. */
char **qx_misc_get_params(int count, const char *const *names);
char *qx_misc_get_param(const char *name);

/* Length of short numbers; -1 when it is not set, 0 when it is no number. */
int qx_get_extlen(void);

/* The separator of full numbers, 0 to 255; -1 when it is not set. */
int qx_get_extsep(void);

/* 1 when billing is switched off for the whole platform, else 0. */
int qx_billing_disabled(void);

/* Frees `count` strings and their array; a NULL array is ignored. */
void qx_free_string_array(int count, char **array);

/* --- State ------------------------------------------------------------------------------------ */

/* 0 term, 1 queue, 2 ivr, 3 voicecenter, 4 conference, 5 callback, 6 callcard, 7 intercom,
 * 8 queuecenter; -1 for another type and when it is not known. */
int qx_get_extension_type(const char *full_number);

/* The names of the codecs in the order of their priority, a "," after each ("alaw,g729,"); NULL
 * when there are none. */
char *qx_get_extension_codecs(const char *full_number);

/* The name of the time zone of the extension's user, or NULL. Asks the database only. */
char *qx_get_extension_timezone(int extension_id);

/* Positive when the extension may register, else 0: 1 from the database, from the cache the number
 * there. */
int qx_extension_can_register(SessionHandle session, const char *full_number);

/* Non-zero when the extension's user works with several users. 0 when unknown. A database failure
 * is cached as 0. */
int qx_is_multiuser_aware(const char *full_number);

/* 0 when the extension has a SIP session that is reachable and lasts beyond now, else 1. A virtual
 * phone's number stands for the one behind it. Asks the cache only. */
int qx_extension_expired(const char *full_number);

/* Caller screening: the behaviour as the platform spells it, and the numbers allowed and denied,
 * each list joined with ",", NULL when empty. An out may be NULL. 0; -1 with all outs NULL when no
 * behaviour is known. A program that changes the lists in the database must delete what the cache
 * has of them: see docs/library.md, "Lookups". */
int qx_screening_get_behaviour(const char *full_number, char **behaviour, char **allowed,
                               char **denied);

/* Parses a UTC time as the cache has it, "2024-02-29 12:00:00", with or without single quotes. 0;
 * -1, with the out untouched, for any other text. */
int redis_str2time(const char *text, time_t *time);

SPOOLCAP_END_DECLARATIONS

#endif
