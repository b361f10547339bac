// Asks the database for sizes of stored files and the disk for the rest, and reads children's
// files.
#include "main/quota/usage.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <spoolcap/zarn_db_files.h>
#include "main/quota/kinds.h"
#include "main/quota/measure.h"
#include "main/quota/record.h"
#include "main/quota/tree_paths.h"

namespace {

// Only owners have stored files; what is above them has their sums.
usage database_usage(const tree_account &self, const char *table) {
  if (self.level != LEVEL_OWNER) return {};
  // -1 means that the statement failed. Other negative sums are of rows with wrong sizes: certain,
  // and taken for nothing.
  const int64_t bytes = qx_get_db_files_quota(table, LEVEL_OWNER, self.id);
  if (bytes >= 0) return {bytes, true};
  return {0, bytes != -1};
}

// Sums all media directories of one account and kind.
usage media_usage(const tree_account &self, unsigned kind) {
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
  std::vector<std::string> paths;
  usage total;
  // An account of another level has no media of its own, which is certain.
  if (make_dpath(kind, self.level, reseller, client, owner, paths) != 0) return total;
  for (const std::string &path : paths) {
    const disk_usage found = measure_directory(path.c_str(), true);
    total.bytes = static_cast<int64_t>(static_cast<uint64_t>(total.bytes) + found.bytes);
    if (!found.is_all) total.certain = false;
  }
  return total;
}

// The value of a child's file. Nothing for one that is not there.
usage value_of_child(const quota_folder &folder, const char *name) {
  if (!folder.is_open()) return {0, false};
  const quota_file file = folder.open_to_read(name);
  // No file is an answer; a file that cannot be opened is none.
  if (!file) return {0, errno == ENOENT || errno == ENOTDIR};
  const std::optional<quota_record> record = record_of(file);
  if (!record) return {0, false};
  return {std::max<int64_t>(record->value, 0), true};
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

usage own_usage(const tree_account &self, unsigned kind) {
  // Memory that is short hides what is there, as a bad disk does.
  return no_throw(usage{0, false}, [&] {
    const char *table = media_kinds[kind].rows.table;
    return table == nullptr ? media_usage(self, kind) : database_usage(self, table);
  });
}

int grab_child_quotas(const char *id, const char * /*parent_id*/, const char * /*grandparent_id*/,
                      unsigned kind, const quota_folder &folder, int64_t *sum, bool *certain) {
  if (kind >= QUOTA_ALL_KINDS) return -1;
  const sql_result rows =
      rows_of(QX_HERE, "SELECT client.id FROM client WHERE client.parent_client_id = '%s'", id);
  if (!rows) return -1;
  while (MYSQL_ROW row = ::mysql_fetch_row(rows.get())) {
    if (row[0] == nullptr) return -1;
    char name[64];
    // By number, as directories are named without leading zeros.
    std::snprintf(name, sizeof name, "%d/%s", std::atoi(row[0]), media_kinds[kind].quota_file);
    const usage child = value_of_child(folder, name);
    if (!child.certain) *certain = false;
    // A damaged record may hold any number; the sum then wraps.
    (void)__builtin_add_overflow(*sum, child.bytes, sum);
  }
  return 0;
}
