// The fast update: deltas added to quota files under short locks, without measuring anything.
#include <climits>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>

#include "quota/account.h"
#include "quota/store.h"
#include "sql_owner.h"
#include "zarn_str.h"

QX_LOG_SOURCE("../main/quota");

namespace {

constexpr int default_wait = 30;  // ms
constexpr int lock_step = 10;     // ms

bool is_empty(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 && status.st_size == 0;
}

// Somebody else's file that is still empty is being created: who made it has yet to come for the
// lock, and is let in first.
bool try_lock(int fd, bool created) {
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return false;
  if (created || !is_empty(fd)) return true;
  ::flock(fd, LOCK_UN);
  return false;
}

// Tries as often as the wait has steps, and once more; a negative wait is one try without a pause.
bool lock_within(int fd, int wait, bool created) {
  if (wait < 0) return try_lock(fd, created);
  for (int tries = wait / lock_step; tries >= 0; --tries) {
    if (try_lock(fd, created)) return true;
    fine_sleep(lock_step / 1000.0F);
  }
  return false;
}

// Opens the file, made with its directory where it is not there; *created says which.
unique_fd open_or_create(const char *path, uid_t uid, gid_t gid, bool *created) {
  unique_fd file = open_quota_file(path, AT_FDCWD, created);
  if (file || errno != ENOENT) return file;
  const char *slash = std::strrchr(path, '/');
  make_dirs(std::string(path, slash).c_str(), quota_directory_mode, uid, gid);
  return open_quota_file(path, AT_FDCWD, created);
}

int64_t sum_of(int64_t value, int64_t delta) {
  int64_t sum = 0;
  if (__builtin_add_overflow(value, delta, &sum)) {
    sum = delta < 0 ? 0 : std::numeric_limits<int64_t>::max();
  }
  return sum < 0 ? 0 : sum;
}

// Reads, adds and writes while the caller holds the lock; the value as it then is, -1 for none.
int64_t apply_delta(int fd, const char *path, int64_t delta, bool created) {
  int64_t value = -1;
  int revision = -1;
  const bool read = quota_read_internal(fd, &value, &revision) == 0;
  if (read ? value == -1 || revision == -1 : !created) {
    set_dirty(path);
    return value;
  }
  // A file that this call created may have been filled by a faster process since.
  const bool is_new = !read;
  if (is_new) value = revision = 0;
  if (delta == 0 && !is_new) return value;
  value = sum_of(value, delta);
  if (revision < INT_MAX) ++revision;
  if (quota_write_internal(fd, value, revision) != 0) set_dirty(path);
  return value;
}

int64_t update_file(const char *path, int64_t delta, int wait) {
  if (path == nullptr || std::strchr(path, '/') == nullptr) return -1;
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return -1;
  if (is_dirty(path) == 1) return -1;
  bool created = false;
  const unique_fd file = open_or_create(path, uid, gid, &created);
  if (!file) return -1;
  if (!lock_within(file.get(), wait, created)) {
    set_dirty(path);
    return -1;
  }
  const int64_t value = apply_delta(file.get(), path, delta, created);
  // The host may have forked meanwhile: the lock must not live on in the child's copy.
  ::flock(file.get(), LOCK_UN);
  return value;
}

int update_ancestry(int account_id, unsigned kind, int64_t delta, int wait) {
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  int reseller = 0;
  int client = 0;
  int owner = 0;
  const int error = climb_tree(session.get(), account_id, [&](int id, int level) {
    if (level == LEVEL_OWNER) owner = id;
    if (level == LEVEL_CLIENT) client = id;
    if (level == LEVEL_RESELLER) reseller = id;
  });
  if (error != 0) return error;
  return quota_update_fast(kind, delta, wait < 0 ? default_wait : wait, reseller, client, owner);
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
    ancestry_paths paths;
    if (!paths.make(kind, reseller_id, client_id, owner_id)) return -1;
    // Deepest first. What becomes of one file is told by its dirty mark and stops no other.
    for (const c_string *path : {&paths.owner, &paths.client, &paths.reseller}) {
      if (*path) quota_upd_fast_internal(path->get(), delta, wait);
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
