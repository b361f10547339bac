// Looks accounts up through the account lookups, which ask the cache before the database.
// Nothing is kept here: each call asks again.
#include "main/quota/place.h"

#include <cstdlib>

#include <spoolcap/zarn_user.h>
#include "main/quota/kinds.h"
#include "main/user/account_place.h"

namespace {

// The longest parent chain that is followed. Trees have three levels; a circle has no end.
constexpr int most_levels = 64;

void give_parent(const c_string &text, int *parent_id, std::string *parent_text) {
  if (parent_id != nullptr) *parent_id = std::atoi(text.get());
  if (parent_text != nullptr) *parent_text = text.get();
}

}  // namespace

int get_parid_level(SessionHandle session, int account_id, int *parent_id, std::string *parent_text,
                    int *level, std::string *level_text) {
  const account_place place = get_account_place(session, account_id);
  // Half an answer is none: a wrong place would put figures into another account.
  if (place.level < 0 || !place.parent_id) return -2;
  if (level != nullptr) *level = place.level;
  if (level_text != nullptr) *level_text = std::to_string(place.level);
  if (place.level != LEVEL_ROOT) give_parent(place.parent_id, parent_id, parent_text);
  return 0;
}

int get_parentid(SessionHandle session, int account_id, int *parent_id, std::string *parent_text) {
  const c_string parent(qx_account_get_parent_str_sess(session, account_id));
  if (!parent) return -1;
  give_parent(parent, parent_id, parent_text);
  return 0;
}

int locate(SessionHandle session, int account_id, located_account &found) {
  const int error = get_parid_level(session, account_id, &found.parent, &found.parent_text,
                                    &found.level, nullptr);
  if (error != 0 || found.level != LEVEL_OWNER) return error;
  // Only an owner has two accounts above it that count.
  return get_parentid(session, found.parent, &found.grandparent, &found.grandparent_text);
}

int *tree_place::at(int level) {
  if (level == LEVEL_OWNER) return &owner;
  if (level == LEVEL_CLIENT) return &client;
  if (level == LEVEL_RESELLER) return &reseller;
  return nullptr;
}

tree_place place_of(int account_id, const located_account &found) {
  switch (found.level) {
    case LEVEL_RESELLER:
      return {account_id, 0, 0};
    case LEVEL_CLIENT:
      return {found.parent, account_id, 0};
    case LEVEL_OWNER:
      return {found.grandparent, found.parent, account_id};
    default:
      return {};
  }
}

int climb_tree(SessionHandle session, int account_id,
               const std::function<void(int account_id, int level)> &visit) {
  for (int steps = 0; steps < most_levels; ++steps) {
    int level = 0;
    int parent_id = 0;
    const int error = get_parid_level(session, account_id, &parent_id, nullptr, &level, nullptr);
    if (error != 0) return error;
    visit(account_id, level);
    // What is above a reseller has no quota files.
    if (level <= LEVEL_RESELLER) return 0;
    account_id = parent_id;
  }
  return -1;
}
