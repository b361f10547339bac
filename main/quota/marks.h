// The two marks of the quota directory: empty files that speak by being there. Internal to the
// engine.
//
// The dirty mark of a quota file ("fax.quota.dirty") says that its value is not to be trusted. A
// fast update that went wrong sets it, updates and verification heed it, a refresh removes it.
//
// The redo mark of an account ("quota.redo") says that the refresh which wrote the account's files,
// or was about to, did not know all. Only a refresh sets, heeds and removes it, and it takes no
// lock: the next refresh computes all files of the account again.
#ifndef MAIN_QUOTA_MARKS_H
#define MAIN_QUOTA_MARKS_H

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

  // Whether a refresh before this one left it.
  bool was_there() const { return state_ == state::there; }

  // False when it cannot be made, or has no folder to be in.
  bool set();

  // Takes the mark away, as this refresh knew all. One that was there before stays when only one
  // kind was computed.
  void settle(bool all_kinds);

 private:
  enum class state { unknown, absent, there, set_here };

  quota_folder &folder_;
  state state_ = state::unknown;
};

#endif
