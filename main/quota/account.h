// An account's place in the tree, as the engine asks for it. Internal to the engine.
#ifndef MAIN_QUOTA_ACCOUNT_H
#define MAIN_QUOTA_ACCOUNT_H

#include "sqlsession.h"

// Level and parent of an account; every output may be null. Texts are malloc'ed, the caller's; the
// parent's is null when it is empty. For level 0 the parent outputs are left alone. 0, or -2 when
// the account is not known.
int get_parid_level(SessionHandle session, int account_id, int *parent_id, char **parent_text,
                    int *level, char **level_text);

// Parent of an account; 0, or -1 when it is not known.
int get_parentid(SessionHandle session, int account_id, int *parent_id, char **parent_text);

#endif
