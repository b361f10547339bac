// An account's place in the tree, as the engine asks for it. Internal to the engine.
#ifndef MAIN_QUOTA_ACCOUNT_H
#define MAIN_QUOTA_ACCOUNT_H

#include <functional>

#include "sqlsession.h"

// Level and parent of an account; every output may be null. Texts are malloc'ed, the caller's; the
// parent's is null when it is empty. For level 0 the parent outputs are left alone. 0, or -2 when
// the account is not known.
int get_parid_level(SessionHandle session, int account_id, int *parent_id, char **parent_text,
                    int *level, char **level_text);

// Parent of an account; 0, or -1 when it is not known.
int get_parentid(SessionHandle session, int account_id, int *parent_id, char **parent_text);

// Visits an account and all above it, with their levels, until one with a level below 11 was
// visited. 0; the error of get_parid_level; -1 when the way up leads in a circle.
int climb_tree(SessionHandle session, int account_id,
               const std::function<void(int account_id, int level)> &visit);

#endif
