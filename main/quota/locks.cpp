// Finds out whether locks on quota files can be relied on.
// Looks at the options of the mount that the quota root lies on, and only warns.
#include "main/quota/locks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/base/diagnostics.h"
#include "platform/base/line_reader.h"
#include "platform/base/owner.h"
#include "platform/base/view.h"

namespace {

// Of network file systems.
constexpr std::array<std::string_view, 7> local_lock_options = {
    "nolock",     "local_lock=all", "local_lock=flock", "nobrl",
    "localflock", "localflocks",    "noflock"};

// The mount that a path lies on, as mountinfo numbers it; empty when the kernel does not tell.
std::string mount_of(const std::string &path) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &status) != 0) return {};
  return (status.stx_mask & STATX_MNT_ID) != 0 ? std::to_string(status.stx_mnt_id) : "";
}

void look_at_mount(const std::string &quota_root) {
  const std::string mount = mount_of(quota_root);
  if (mount.empty()) return;
  line_reader lines("/proc/self/mountinfo");
  if (!lines) return;
  while (const auto line = lines.next()) {
    if (!line->starts_with(mount + " ")) continue;
    const std::string option(local_lock_option(trimmed(*line)));
    if (option.empty()) return;
    QX_LOG(FR_LOG_WARNING,
           "%s:%d:locks on the quota files below <%s> hold on this machine only (mount option %s): "
           "no other machine may use them\n",
           QX_LOG_SOURCE, __LINE__, quota_root.c_str(), option.c_str());
  }
}

}  // namespace

std::string_view local_lock_option(std::string_view mount) {
  // Behind the last blank are the options of the file system.
  std::string_view options = mount.substr(mount.find_last_of(' ') + 1);
  while (!options.empty()) {
    const std::string_view option = options.substr(0, options.find(','));
    options.remove_prefix(std::min(options.size(), option.size() + 1));
    const auto *const found =
        std::find(local_lock_options.begin(), local_lock_options.end(), option);
    if (found != local_lock_options.end()) return *found;
  }
  return {};
}

void warn_of_local_locks(const std::string &quota_root) noexcept {
  no_throw([&] { look_at_mount(quota_root); });
}

void note_lock_failure() noexcept {
  static constinit std::atomic<bool> is_noted = false;
  if (is_noted.exchange(true)) return;
  const int reason = errno;
  QX_LOG(FR_LOG_ERROR, "%s:%d:quota files cannot be locked, so updates may be lost: %s\n",
         QX_LOG_SOURCE, __LINE__, std::strerror(reason));
  errno = reason;
}
