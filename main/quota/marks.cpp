// Marks are files in the quota folder; how they are opened safely is the folder's affair.
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
  return folder.create(dirty_name(file).c_str());
}

int unset_dirty(const quota_folder &folder, const char *file) {
  return folder.remove(dirty_name(file).c_str());
}

void redo_mark::look() {
  if (folder_.is_open()) state_ = folder_.has(redo_name) == 1 ? state::there : state::absent;
}

bool redo_mark::set() {
  if (state_ == state::there || state_ == state::set_here) return true;
  if (!folder_.open()) return false;
  // Whether a forced refresh found the mark there decides what becomes of it at the end.
  const bool was_there = state_ == state::unknown && folder_.has(redo_name) == 1;
  if (was_there) {
    state_ = state::there;
  } else if (folder_.create(redo_name) == 0) {
    state_ = state::set_here;
  } else {
    return false;
  }
  return true;
}

void redo_mark::settle(bool all_kinds) {
  if (state_ == state::absent || !folder_.is_open()) return;
  if (all_kinds || state_ == state::set_here) folder_.remove(redo_name);
}
