// An account's place in the tree, as the engine asks for it. Internal to the engine.
#ifndef MAIN_QUOTA_PLACE_H
#define MAIN_QUOTA_PLACE_H

#include <functional>
#include <string>

#include <spoolcap/sqlsession.h>

// Level and parent of an account; every output may be null, and a parent that is empty gives an
// empty text. For level 0 the parent outputs are left alone. 0, or -2 when the account is not
// known.
int get_parid_level(SessionHandle session, int account_id, int *parent_id, std::string *parent_text,
                    int *level, std::string *level_text);

// Parent of an account; every output may be null. 0, or -1 when it is not known.
int get_parentid(SessionHandle session, int account_id, int *parent_id, std::string *parent_text);

// An account with what is above it, up to the reseller; ids are 0, and texts empty, where there is
// none. The texts are the ids as the database has them.
struct located_account {
  int level = 0;
  int parent = 0;
  int grandparent = 0;
  std::string parent_text;
  std::string grandparent_text;
};

// Looks an account up, and for an owner the parent's parent too. 0; -2 when the account is not
// known; -1 when an owner's grandparent is not.
int locate(SessionHandle session, int account_id, located_account &found);

// The ids on the way from the reseller down to an account; 0 where there is none.
// What a path below the quota root is made of, from left to right.
struct tree_place {
  int reseller = 0;
  int client = 0;
  int owner = 0;

  // The id at one level; null for a level that has no place.
  int *at(int level);
};

// The place of a located account; no reseller for a level without one.
tree_place place_of(int account_id, const located_account &found);

// Visits an account and all above it, with their levels, until one with a level below 11 was
// visited. 0; the error of get_parid_level; -1 when the parent chain does not end.
int climb_tree(SessionHandle session, int account_id,
               const std::function<void(int account_id, int level)> &visit);

#endif
