#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "base/diagnostics.h"
#include "base/parseconfig.h"
#include "base/view.h"
#include "paths.h"
#include "quota/store.h"
#include "utils.h"

QX_LOG_SOURCE("../main/quota");

const char *const quota_kind_names[QUOTA_ALL_KINDS] = {"fax", "sound", "recording", "voicemail",
                                                       "music"};
const char *const quota_limit_names[QUOTA_ALL_KINDS] = {"fax_storage", "max_sound", "max_record",
                                                        "max_voice", "max_moh"};

namespace {

std::mutex lock;  // guards what is kept for the process
quota_settings settings;

struct {
  uid_t user = 0;
  gid_t group = 0;
  bool failure_logged = false;
} owner;

// Takes over what a reader found, so that a setting once filled never changes under its users.
void fill(c_string &setting, safestr_t found, qx_path_id fallback) {
  const safestr_owner value(found);
  if (setting) return;
  setting.reset(::strdup(is_empty(value.get()) ? qx_path(fallback) : value.get()));
}

bool all_filled() {
  return settings.quota_root && settings.ast_spool_dir && settings.ast_var_lib_dir;
}

void fill_settings() {
  safestr_t root = nullptr;
  const parseconfig_entry directives[] = {{"QUORVEX_QUOTA_D", &root}};
  parseconfig(qx_path(QX_PATH_PATHS_CONF), directives, 1);
  fill(settings.quota_root, root, QX_PATH_QUOTA_ROOT);

  const char *const keys[] = {"astspooldir", "astvarlibdir", nullptr};
  safestr_t values[] = {nullptr, nullptr};
  get_astconf_section_values(qx_path(QX_PATH_ASTERISK_CONF), "directories", keys, values);
  fill(settings.ast_spool_dir, values[0], QX_PATH_AST_SPOOL);
  fill(settings.ast_var_lib_dir, values[1], QX_PATH_AST_LIB);
}

// getpwnam_r or getgrnam_r with as much room as the entry takes: a group may have many members.
template <class Entry, class Lookup>
bool look_up(Lookup lookup, const char *name, Entry &entry, std::unique_ptr<char[]> &text) {
  int error = ERANGE;
  for (size_t size = 1024; error == ERANGE; size *= 2) {
    text = std::make_unique<char[]>(size);
    Entry *found = nullptr;
    error = lookup(name, &entry, text.get(), size, &found);
    if (found != nullptr) return true;
  }
  return false;
}

}  // namespace

int get_conf() {
  const std::lock_guard guard(lock);
  if (!all_filled()) fill_settings();
  return 0;
}

const quota_settings *loaded_settings() {
  get_conf();
  return all_filled() ? &settings : nullptr;
}

int get_ids(const char *user_name, const char *group_name, uid_t *uid, gid_t *gid) {
  std::unique_ptr<char[]> text;
  if (user_name != nullptr && uid != nullptr) {
    passwd user{};
    if (!look_up(getpwnam_r, user_name, user, text)) return -1;
    *uid = user.pw_uid;
  }
  if (group_name != nullptr && gid != nullptr) {
    group found{};
    if (!look_up(getgrnam_r, group_name, found, text)) return -1;
    *gid = found.gr_gid;
  }
  return 0;
}

int owner_ids(uid_t *uid, gid_t *gid) {
  const std::lock_guard guard(lock);
  if ((owner.user == 0 || owner.group == 0) &&
      get_ids("asterisk", "asterisk", &owner.user, &owner.group) != 0) {
    if (!owner.failure_logged) {
      QX_LOG(FR_LOG_ERROR,
             "%s:%d:user \"asterisk\" and group \"asterisk\" must both exist: no quota file can be "
             "written\n",
             qx_log_source, __LINE__);
    }
    owner.failure_logged = true;
    return -1;
  }
  *uid = owner.user;
  *gid = owner.group;
  return 0;
}
