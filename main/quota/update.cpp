// The fast update: deltas added to quota files under short locks, without measuring anything.
// Called by hosts after each file that they store or delete.
#include <climits>
#include <cstring>
#include <limits>
#include <string>

#include <spoolcap/quota.h>
#include <spoolcap/zarn_str.h>
#include "main/quota/kinds.h"
#include "main/quota/marks.h"
#include "main/quota/place.h"
#include "main/quota/record.h"
#include "main/quota/settings.h"
#include "main/quota/tree_paths.h"
#include "main/sql/query.h"

namespace {

constexpr int default_wait = 30;  // ms
constexpr int lock_step = 10;     // ms

// Whether the file is locked for this update. An empty file that this call did not create is still
// being created: its maker is about to lock it, and goes first.
bool holds_lock(quota_file &file) {
  if (!file.is_locked || file.created || file.size != 0) return file.is_locked;
  ::flock(file.fd.get(), LOCK_UN);
  file.is_locked = false;
  return false;
}

// Tries as often as the wait has steps, and once more; a negative wait is one try without a pause.
// The first try was made when the file was opened.
bool lock_within(quota_file &file, int wait) {
  for (int tries = wait / lock_step; !holds_lock(file); try_lock(file)) {
    if (wait < 0) return false;
    fine_sleep(lock_step / 1000.0F);
    if (--tries < 0) return false;
  }
  return true;
}

// Never below 0: a file that is deleted twice must not make room that is not there. An overflow
// ends at the limit of the type.
int64_t sum_of(int64_t value, int64_t delta) {
  int64_t sum = 0;
  if (__builtin_add_overflow(value, delta, &sum)) {
    sum = delta < 0 ? 0 : std::numeric_limits<int64_t>::max();
  }
  return sum < 0 ? 0 : sum;
}

// Reads, adds and writes while the caller holds the lock; the value as it then is, -1 for none.
int64_t apply_delta(quota_folder &folder, const char *name, const quota_file &file, int64_t delta) {
  std::optional<quota_record> record = record_of(file);
  // -1 is what a reader gives for no value, so a record must not hold it.
  if (record ? record->value == -1 || record->revision == -1 : !file.created) {
    set_dirty(folder, name);
    return record ? record->value : -1;
  }
  // A file that this call created may have been filled by a faster process since.
  const bool is_new = !record;
  if (is_new) record = {0, 0, true};
  if (delta == 0 && !is_new) return record->value;
  const int64_t value = sum_of(record->value, delta);
  // Counts up and stays at the highest: from 1000 on a refresh measures again.
  const int revision = record->revision < INT_MAX ? record->revision + 1 : INT_MAX;
  if (quota_write_internal(file.fd.get(), value, revision, file.size) != 0) set_dirty(folder, name);
  return value;
}

int64_t update_file(const char *path, int64_t delta, int wait) {
  const char *slash = path == nullptr ? nullptr : std::strrchr(path, '/');
  if (slash == nullptr) return -1;
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return -1;
  quota_folder folder(std::string(path, slash));
  const char *name = slash + 1;
  // Nothing is added to a value that is wrong already; a refresh will measure it anew.
  if (is_dirty(folder, name) == 1) return -1;
  quota_file file = open_quota_file(path);
  if (!file && folder.make(uid, gid)) {
    folder.hand_over();
    file = folder.open_to_write(name);
  }
  if (!file) return -1;
  if (!lock_within(file, wait)) {
    set_dirty(folder, name);
    return -1;
  }
  const int64_t value = apply_delta(folder, name, file, delta);
  // The host may have forked meanwhile: the lock must not live on in the child's copy.
  ::flock(file.fd.get(), LOCK_UN);
  return value;
}

int update_ancestry(int account_id, unsigned kind, int64_t delta, int wait) {
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  tree_place place;
  // Ids of levels between the known ones belong to no file and are left out.
  const int error = climb_tree(session.get(), account_id, [&](int id, int level) {
    if (int *const known = place.at(level)) *known = id;
  });
  if (error != 0) return error;
  return quota_update_fast(kind, delta, wait < 0 ? default_wait : wait, place.reseller,
                           place.client, place.owner);
}

}  // namespace

int fine_sleep(float seconds) {
  return zarn_sleep(seconds);
}

// The int is the value's lowest 32 bits, as callers have always been given it.
int quota_upd_fast_internal(const char *path, int64_t delta, int wait) {
  return no_throw(-1, [&] { return static_cast<int>(update_file(path, delta, wait)); });
}

int quota_update_fast(unsigned kind, int64_t delta, int wait, int reseller_id, int client_id,
                      int owner_id) {
  // For all kinds at once there is no file: the path would be that of the account's directory.
  if (kind >= QUOTA_ALL_KINDS) return -1;
  return no_throw(-1, [&] {
    std::string reseller;
    std::string client;
    std::string owner;
    if (make_qpaths(kind, reseller_id, client_id, owner_id, &reseller, &client, &owner) != 0) {
      return -1;
    }
    // Deepest first. A file that fails gets a dirty mark and stops no other.
    for (const std::string *path : {&owner, &client, &reseller}) {
      if (!path->empty()) quota_upd_fast_internal(path->c_str(), delta, wait);
    }
    return 0;
  });
}

int quota_update(int account_id, unsigned kind, int64_t delta, int wait) {
  if (kind >= QUOTA_ALL_KINDS) return -1;
  return no_throw(-1, [&] {
    const quota_umask mask;
    return update_ancestry(account_id, kind, delta, wait);
  });
}
