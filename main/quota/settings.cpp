// Reads the settings of the quota engine from the configuration files, and keeps them.
// From paths.conf and asterisk.conf; the ids of the owner from the system.

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include <spoolcap/utils.h>
#include "common/paths.h"
#include "main/quota/locks.h"
#include "main/quota/settings.h"
#include "platform/base/diagnostics.h"
#include "platform/base/errors.h"
#include "platform/base/ids.h"
#include "platform/base/owner.h"
#include "platform/base/parseconfig.h"

namespace {

// What is kept for the process.
struct process_settings {
  std::mutex lock;                         // guards all that follows
  std::optional<quota_settings> settings;  // never changed once it is there
  uid_t user = 0;
  gid_t group = 0;
  bool failure_logged = false;
};

constinit never_destroyed<process_settings> kept;

std::string value_or_default(safestr_t found, qx_path_id fallback) {
  const safestr_owner value(found);
  return qx_path_or(value.get(), fallback);
}

// A file that is not there means defaults. One that cannot be read does not: with the wrong root
// all figures would land, and be looked for, in another place.
bool is_read_or_absent(int status) {
  return status == 0 || means_nothing_there(errno);
}

std::optional<quota_settings> read_settings() {
  std::string root;
  const parseconfig_entry directives[] = {{"QUORVEX_QUOTA_D", &root}};
  const bool know_root = is_read_or_absent(parseconfig(qx_path(QX_PATH_PATHS_CONF), directives, 1));
  quota_settings found;
  found.quota_root = qx_path_or(root.c_str(), QX_PATH_QUOTA_ROOT);
  if (!know_root) return std::nullopt;

  const char *const keys[] = {"astspooldir", "astvarlibdir", nullptr};
  safestr_t values[] = {nullptr, nullptr};
  const bool know_media = is_read_or_absent(
      get_astconf_section_values(qx_path(QX_PATH_ASTERISK_CONF), "directories", keys, values));
  found.ast_spool_dir = value_or_default(values[0], QX_PATH_AST_SPOOL);
  found.ast_var_lib_dir = value_or_default(values[1], QX_PATH_AST_LIB);
  if (!know_media) return std::nullopt;
  return found;
}

void log_missing_owner(int error) {
  QX_LOG(FR_LOG_ERROR,
         "%s:%d:user \"asterisk\" and group \"asterisk\" must both exist: no quota file can be "
         "written%s%s\n",
         QX_LOG_SOURCE, __LINE__, error == 0 ? "" : ": ", error == 0 ? "" : std::strerror(error));
}

}  // namespace

const quota_settings *loaded_settings() {
  const std::lock_guard guard(kept->lock);
  if (!kept->settings) {
    // Read once: with another root half way, figures of one platform would lie in two trees.
    kept->settings = read_settings();
    if (kept->settings) warn_of_local_locks(kept->settings->quota_root);
  }
  return kept->settings ? &*kept->settings : nullptr;
}

int get_conf() {
  loaded_settings();
  return 0;
}

int owner_ids(uid_t *uid, gid_t *gid) {
  process_settings &own = kept.value;
  const std::lock_guard guard(own.lock);
  // Under the lock, so that a slow directory service is asked by one thread only.
  if ((own.user == 0 || own.group == 0) &&
      get_ids("asterisk", "asterisk", &own.user, &own.group) != 0) {
    if (!own.failure_logged) log_missing_owner(errno);
    own.failure_logged = true;
    return -1;
  }
  *uid = own.user;
  *gid = own.group;
  return 0;
}
