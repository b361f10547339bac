// One account's part of a refresh: what it uses, what its children use, and its files.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "quota/measure.h"
#include "quota/refresh.h"
#include "quota/store.h"
#include "zarn_db_files.h"

QX_LOG_SOURCE("../main/quota");

namespace {

struct media_paths {
  media_paths() = default;
  media_paths(const media_paths &) = delete;
  media_paths &operator=(const media_paths &) = delete;
  ~media_paths() { free_dpath(paths, count); }

  char **paths = nullptr;
  size_t count = 0;
};

// Sums all media directories of one account and kind.
int64_t media_usage(const tree_account &self, unsigned kind) {
  const char *reseller = self.id;
  const char *client = nullptr;
  const char *owner = nullptr;
  if (self.level == LEVEL_CLIENT) {
    reseller = self.parent_id;
    client = self.id;
  } else if (self.level == LEVEL_OWNER) {
    reseller = self.grandparent_id;
    client = self.parent_id;
    owner = self.id;
  }
  media_paths media;
  if (make_dpath(kind, self.level, reseller, client, owner, &media.paths, &media.count) != 0) {
    return 0;
  }
  int64_t total = 0;
  // Most accounts have no directory of a kind, so that one that is not there is no failure.
  for (size_t i = 0; i < media.count; ++i) compute_quota(media.paths[i], &total, 1);
  return total;
}

bool read_quota_file(int at, const char *path, int64_t *value, int *revision) {
  const unique_fd file(::openat(at, path, O_RDONLY | O_CLOEXEC));
  return file && quota_read_internal(file.get(), value, revision) == 0;
}

// Waits for the exclusive lock; it goes with the descriptor.
bool lock_file(int fd) {
  int locked = 0;
  do {
    locked = ::flock(fd, LOCK_EX);
  } while (locked != 0 && errno == EINTR);
  return locked == 0;
}

}  // namespace

sql_result rows_of(const call_site &site, const char *statement, const char *id) {
  sql_result rows;
  const sql_session session;
  if (!session) {
    log_condition_failed(site);
    return rows;
  }
  if (sql_query(site, session.get(), rows, statement, id) != 0) return nullptr;
  if (!rows) log_condition_failed(site);
  return rows;
}

int64_t own_usage(const tree_account &self, unsigned kind) {
  const char *table = nullptr;
  switch (kind) {
    case QUOTA_FAX:
      table = "extension_fax_center";
      break;
    case QUOTA_RECORDING:
      table = "extension_recording";
      break;
    case QUOTA_VOICEMAIL:
      table = "extension_voicemail";
      break;
    default:
      return media_usage(self, kind);
  }
  return self.level == LEVEL_OWNER ? qx_get_db_files_quota(table, LEVEL_OWNER, self.id) : 0;
}

int grab_child_quotas(const char *id, const char * /*parent_id*/, const char * /*grandparent_id*/,
                      unsigned kind, const char *directory, int64_t *sum) {
  if (kind >= QUOTA_ALL_KINDS) return -1;
  const sql_result rows =
      rows_of(QX_HERE, "SELECT client.id FROM client WHERE client.parent_client_id = '%s'", id);
  if (!rows) return -1;
  const unique_fd parent(::open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC));
  while (MYSQL_ROW row = ::mysql_fetch_row(rows.get())) {
    if (row[0] == nullptr) return -1;
    char path[64];
    std::snprintf(path, sizeof path, "%d/%s.quota", std::atoi(row[0]), quota_kind_names[kind]);
    int64_t value = 0;
    if (!read_quota_file(parent.get(), path, &value, nullptr) || value < 0) continue;
    // A damaged record may hold any number; the sum then wraps.
    (void)__builtin_add_overflow(*sum, value, sum);
  }
  return 0;
}

int is_rev_inrange(const char *path, int64_t *value, int at) {
  int revision = -1;
  if (!read_quota_file(at, path, value, &revision)) return 0;
  return revision >= 0 && revision <= highest_fresh_revision ? 1 : 0;
}

int quota_real_update(const char *path, int64_t value, int revision, int at, bool *written) {
  const unique_fd file = open_quota_file(path, at);
  if (!file) return -1;
  const bool locked = lock_file(file.get());
  // Where locks cannot be had at all, a value written without one is better than none. A write that
  // failed leaves an empty file, which is computed again.
  const int status = quota_write_internal(file.get(), value, revision);
  if (locked) ::flock(file.get(), LOCK_UN);
  if (written != nullptr) *written = status == 0;
  return 0;
}

void expire_quota_file(const char *path, int at) {
  const unique_fd file(::openat(at, path, O_RDWR | O_CLOEXEC));
  if (!file || !lock_file(file.get())) return;
  int64_t value = 0;
  int revision = 0;
  if (quota_read_internal(file.get(), &value, &revision) == 0 && revision >= 0 &&
      revision <= highest_fresh_revision) {
    quota_write_internal(file.get(), value, expired_revision);
  }
}
