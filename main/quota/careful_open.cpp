// Opens by descriptor and component; knows nothing of quota files or of their owners.
// Called as root in folders that others may write; see the header for the rule.
#include "main/quota/careful_open.h"

#include <linux/openat2.h>
#include <sys/syscall.h>

#include <algorithm>
#include <climits>

namespace {

constexpr int most_links = 8;  // of root's, one behind the other

bool is_link(int folder, const char *name, struct stat &status) {
  return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

// True if only root can have made the link, and only root can replace it.
bool is_links_maker_root(int folder, const struct stat &link) {
  struct stat around {};
  return link.st_uid == 0 && ::fstat(folder, &around) == 0 && around.st_uid == 0 &&
         (around.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

unique_fd walk(int at, const std::string &path, int flags, int links_left);

// Where a link of root's leads, which is walked by the same rule: further on, others may have put
// links of theirs.
unique_fd follow_link(int folder, const char *name, int flags, int links_left) {
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(folder, name, target, sizeof target);
  if (length <= 0 || links_left == 0) return {};
  return walk(folder, std::string(target, static_cast<size_t>(length)), flags, links_left - 1);
}

unique_fd open_entry_within(int folder, const char *name, int flags, int links_left) {
  // First without following, so that no link is taken before its maker was looked at.
  unique_fd opened(::openat(folder, name, flags | O_NOFOLLOW));
  if (opened || (errno != ELOOP && errno != ENOTDIR)) return opened;
  // ENOTDIR is what O_DIRECTORY makes of a link; the look below tells it from a file.
  const int error = errno;
  struct stat status {};
  const bool linked = is_link(folder, name, status);
  if (linked && is_links_maker_root(folder, status)) {
    opened = follow_link(folder, name, flags, links_left);
    if (opened || errno != ELOOP) return opened;
  }
  errno = linked ? ELOOP : error;
  return {};
}

// Opens what a path leads to, component by component.
unique_fd walk(int at, const std::string &path, int flags, int links_left) {
  unique_fd folder(path.starts_with('/') ? ::open("/", folder_flags)
                                         : ::openat(at, ".", folder_flags));
  for (size_t start = 0; folder;) {
    start = path.find_first_not_of('/', start);
    if (start == path.npos) return folder;
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string name = path.substr(start, end - start);
    start = end;
    const bool is_last = path.find_first_not_of('/', start) == path.npos;
    folder =
        open_entry_within(folder.get(), name.c_str(), is_last ? flags : folder_flags, links_left);
    if (is_last) return folder;
  }
  return folder;
}

}  // namespace

// Opens a path on which no component is a link, in one call. ELOOP where one is, or where the
// kernel does not offer the call: the careful way then finds out.
unique_fd open_without_links(int at, const char *path, int flags) {
  open_how how{};
  how.flags = static_cast<__u64>(flags);
  // One call in place of one for each component: most trees have no link at all.
  how.resolve = RESOLVE_NO_SYMLINKS;
  unique_fd opened(static_cast<int>(::syscall(SYS_openat2, at, path, &how, sizeof how)));
  if (!opened && (errno == ENOSYS || errno == EPERM)) errno = ELOOP;
  return opened;
}

unique_fd open_entry(int folder, const char *name, int flags) {
  return open_entry_within(folder, name, flags, most_links);
}

unique_fd open_carefully(int at, const std::string &path, int flags) {
  return walk(at, path, flags, most_links);
}
