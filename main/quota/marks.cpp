// Marks are files in the quota folder; how they are opened safely is the folder's affair.
// All that is known of a mark is its name, its lock and its time.
#include "main/quota/marks.h"

namespace {

constexpr const char *redo_name = "quota.redo";

std::string dirty_name(const char *file) {
  return std::string(file) + ".dirty";
}

}  // namespace

int is_dirty(const quota_folder &folder, const char *file) {
  return folder.has(dirty_name(file).c_str());
}

int set_dirty(quota_folder &folder, const char *file) {
  if (!folder.open()) return -1;
  const quota_file mark = folder.create(dirty_name(file).c_str());
  // Another user's mark cannot be opened and serves all the same.
  return mark || errno == EACCES ? 0 : -1;
}

int unset_dirty(const quota_folder &folder, const char *file) {
  return folder.remove(dirty_name(file).c_str());
}

void redo_mark::look() {
  if (!folder_.open()) {
    state_ = errno == ENOENT ? state::absent : state::unclear;
  } else {
    state_ = folder_.has(redo_name) == 1 ? state::there : state::absent;
  }
}

bool redo_mark::set() {
  if (mark_) return true;
  if (!folder_.open()) return false;
  mark_ = folder_.create(redo_name);
  if (!mark_) {
    // What is no file of ours, or another user's, serves as well.
    const int error = errno;
    const bool is_there = folder_.has(redo_name) == 1;
    if (is_there) state_ = state::there;
    errno = error;
    return is_there;
  }
  if (mark_.created) {
    state_ = state::set_here;
  } else {
    state_ = state::there;
    ::futimens(mark_.fd.get(), nullptr);  // whoever set it before is not to take it away
  }
  // Shared: several refreshes may be at work under one mark. The lock goes with the descriptor.
  ::flock(mark_.fd.get(), LOCK_SH | LOCK_NB);
  struct stat status {};
  if (::fstat(mark_.fd.get(), &status) == 0) set_at_ = status.st_mtim;
  return true;
}

// Whether another refresh works under this mark, or has set it since this one did.
bool redo_mark::is_settled_by_others(const quota_file &mark) const {
  struct stat status {};
  if (::flock(mark.fd.get(), LOCK_EX | LOCK_NB) != 0) return true;
  return mark_ && ::fstat(mark.fd.get(), &status) == 0 &&
         (status.st_mtim.tv_sec != set_at_.tv_sec || status.st_mtim.tv_nsec != set_at_.tv_nsec);
}

void redo_mark::settle(bool all_kinds) {
  if (state_ == state::absent || !folder_.is_open()) return;
  // One kind alone cannot make good what an earlier refresh left open in the others.
  if (!all_kinds && state_ != state::set_here) return;
  if (mark_) {
    if (!is_settled_by_others(mark_)) folder_.remove(redo_name);
    return;
  }
  // A forced refresh did not ask whether there is one.
  const quota_file found = folder_.open_to_read(redo_name);
  // What is no file of ours goes as well.
  if (found ? !is_settled_by_others(found) : errno != ENOENT) folder_.remove(redo_name);
}
