// Looks at descriptors only: what a name stands for may change under root's hands.
// The only code of the engine that gives a file or folder away.
#include "main/quota/hand_over.h"

#include <dirent.h>

#include <string_view>

#include "main/quota/settings.h"
#include "platform/base/owner.h"

namespace {

// The longest text of a record.
constexpr off_t longest_record = 31;

// A folder of root's that only lacks its owner. One with another mode is an administrator's; a
// folder may have the mark for its group from the one above it.
bool is_left_behind_folder(const struct stat &status) {
  constexpr mode_t compared = 05777;
  return status.st_uid == 0 && (status.st_mode & compared) == quota_directory_mode;
}

// A quota file or mark of root's that only lacks its owner. Its text is looked at, too: where the
// system lets users link the files of others, one of root's may have come here by a second name.
bool is_left_behind_file(int fd, const struct stat &status) {
  if (status.st_uid != 0 || !running_as_root()) return false;
  if ((status.st_mode & 07777U & ~quota_file_mode) != 0) return false;
  char text[longest_record + 1];
  const ssize_t length = ::pread(fd, text, sizeof text, 0);
  if (length < 0 || length > longest_record) return false;
  const std::string_view content(text, static_cast<size_t>(length));
  return content.find_first_not_of(".-0123456789") == content.npos;
}

}  // namespace

bool running_as_root() {
  return ::getuid() == 0;
}

bool give(int fd, uid_t uid, gid_t gid) {
  return ::fchownat(fd, "", uid, gid, AT_EMPTY_PATH) == 0;
}

void give_to_owner(int fd) {
  uid_t uid = 0;
  gid_t gid = 0;
  // A file that stays root's is still a good file.
  if (owner_ids(&uid, &gid) == 0) give(fd, uid, gid);
}

bool is_just_made(int fd, const struct stat &status) {
  constexpr mode_t most = S_ISGID | quota_directory_mode;
  if (status.st_uid != 0 || (status.st_mode & 07777U & ~most) != 0) return false;
  if ((status.st_mode & S_IXGRP) == 0) return false;
  const unique_fd folder(::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  char entries[1024];
  const ssize_t length = ::getdents64(folder.get(), entries, sizeof entries);
  int count = 0;
  for (ssize_t at = 0; at < length; ++count) {
    at += reinterpret_cast<const dirent64 *>(entries + at)->d_reclen;
  }
  return length >= 0 && count <= 2;  // itself and the one above
}

void hand_over_folder(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) == 0 && is_left_behind_folder(status) && running_as_root()) {
    give_to_owner(fd);
  }
}

void hand_over_file(int fd, const struct stat &status) {
  if (is_left_behind_file(fd, status)) give_to_owner(fd);
}
