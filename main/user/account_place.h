// Where an account stands in the tree of accounts, for the quota engine.
#ifndef MAIN_USER_ACCOUNT_PLACE_H
#define MAIN_USER_ACCOUNT_PLACE_H

#include <spoolcap/sqlsession.h>
#include "platform/base/owner.h"

struct account_place {
  int level;           // negative when it is not known
  c_string parent_id;  // empty when there is none, null when it is not known
};

// The results of qx_account_get_level_sess and qx_account_get_parent_str_sess, in one read when the
// cache has both.
account_place get_account_place(SessionHandle session, int account_id);

#endif
