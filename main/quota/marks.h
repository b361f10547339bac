// The two marks of the quota directory: empty files that speak by being there. Internal to the
// engine.
//
// The dirty mark of a quota file ("fax.quota.dirty") says that its value is not to be trusted. A
// fast update that went wrong sets it, updates and verification heed it, a refresh removes it.
//
// The redo mark of an account ("quota.redo") says that the refresh which wrote the account's files,
// or was about to, did not know all. Only a refresh sets, heeds and removes it; the next refresh
// computes all files of the account again. Setting it never waits. A refresh holds a shared lock on
// the mark that it set. Another refresh then leaves it, as the first may still be killed.
#ifndef MAIN_QUOTA_MARKS_H
#define MAIN_QUOTA_MARKS_H

#include <ctime>

#include "main/quota/folder.h"

// 1 when the quota file has a dirty mark, or when that cannot be found out; else 0.
int is_dirty(const quota_folder &folder, const char *file);

// Opens the folder if need be. 0, or -1 when the mark cannot be made. It stays when only its owner
// is not known.
int set_dirty(quota_folder &folder, const char *file);

// The result of unlink.
int unset_dirty(const quota_folder &folder, const char *file);

// The redo mark of one account for the length of its refresh.
class redo_mark {
 public:
  explicit redo_mark(quota_folder &folder) : folder_(folder) {}

  // Finds out whether a mark is there. A forced refresh does not go by it and need not ask.
  void look();

  // Whether a refresh before this one left it, as far as can be found out.
  bool was_there() const { return state_ == state::there || state_ == state::unclear; }

  // False, with errno, when it cannot be made, or has no folder to be in. As long as this object
  // lives, it shows other refreshes that one is at work here.
  bool set();

  // Removes the mark, as this refresh knew all. An older mark stays when only one kind was
  // computed. So does one that another refresh holds or has set since.
  void settle(bool all_kinds);

 private:
  // unclear: whether one is there could not be found out. set_here: made by this refresh.
  enum class state { unknown, unclear, absent, there, set_here };

  // Whether `mark` is for another refresh to take away. Locks it, if it can be locked.
  bool is_settled_by_others(const quota_file &mark) const;

  quota_folder &folder_;
  quota_file mark_;       // held with a shared lock once this refresh has set it
  timespec set_at_ = {};  // when it was set last, as far as this refresh knows
  state state_ = state::unknown;
};

#endif
