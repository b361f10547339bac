#include "quota/account.h"

#include <cstdlib>

#include "quota/store.h"
#include "zarn_str.h"
#include "zarn_user.h"
#include "zarn_user_internal.h"

namespace {

// A parent as its callers take it: the number, and the text unless it is empty.
void hand_over_parent(c_string text, int *parent_id, char **parent_text) {
  if (parent_id != nullptr) *parent_id = std::atoi(text.get());
  if (parent_text != nullptr) *parent_text = *text == '\0' ? nullptr : text.release();
}

}  // namespace

int get_parid_level(SessionHandle session, int account_id, int *parent_id, char **parent_text,
                    int *level, char **level_text) {
  account_place place = get_account_place(session, account_id);
  if (place.level < 0 || !place.parent_id) return -2;

  char *text = nullptr;
  if (level_text != nullptr && zarn_str_append(&text, "%d", place.level) == nullptr) return -2;
  if (level_text != nullptr) *level_text = text;
  if (level != nullptr) *level = place.level;
  if (place.level != LEVEL_ROOT) {
    hand_over_parent(std::move(place.parent_id), parent_id, parent_text);
  }
  return 0;
}

int get_parentid(SessionHandle session, int account_id, int *parent_id, char **parent_text) {
  c_string parent(qx_account_get_parent_str_sess(session, account_id));
  if (!parent) return -1;
  hand_over_parent(std::move(parent), parent_id, parent_text);
  return 0;
}

int climb_tree(SessionHandle session, int account_id,
               const std::function<void(int account_id, int level)> &visit) {
  constexpr int above_all = 101;
  // Only damaged data leads in a circle. It is noticed by coming back to an account on it; which
  // one is remembered moves up at ever longer intervals, so that it lies on the circle some day.
  int remembered = 0;
  unsigned steps = 0;
  unsigned next_to_remember = 1;
  for (int level = above_all; level > highest_top_level;) {
    if (++steps == next_to_remember) {
      remembered = account_id;
      next_to_remember *= 2;
    } else if (account_id == remembered) {
      return -1;
    }
    int parent_id = 0;
    const int error = get_parid_level(session, account_id, &parent_id, nullptr, &level, nullptr);
    if (error != 0) return error;
    visit(account_id, level);
    account_id = parent_id;
  }
  return 0;
}
