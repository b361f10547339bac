// Looks up the ids of users and groups.
// May ask a directory service, and so may wait.
#include "platform/base/ids.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <memory>

namespace {

// getpwnam_r or getgrnam_r with as much room as the entry takes: a group may have many members.
// False when there is no entry (errno is 0 then) or none can be had.
template <class Entry, class Lookup>
bool look_up(Lookup lookup, const char *name, Entry &entry, std::unique_ptr<char[]> &text) {
  // ERANGE is the only error that more room can cure; it starts the loop and keeps it going.
  errno = ERANGE;
  for (size_t size = 1024; errno == ERANGE; size *= 2) {
    text = std::make_unique<char[]>(size);
    Entry *found = nullptr;
    errno = lookup(name, &entry, text.get(), size, &found);
    if (found != nullptr) return true;
  }
  return false;
}

}  // namespace

// The user goes first: when the group is unknown, *uid has been written already.
int get_ids(const char *user_name, const char *group_name, uid_t *uid, gid_t *gid) {
  std::unique_ptr<char[]> text;
  if (user_name != nullptr && uid != nullptr) {
    passwd user{};
    if (!look_up(::getpwnam_r, user_name, user, text)) return -1;
    *uid = user.pw_uid;
  }
  if (group_name != nullptr && gid != nullptr) {
    group found{};
    if (!look_up(::getgrnam_r, group_name, found, text)) return -1;
    *gid = found.gr_gid;
  }
  return 0;
}
