// Reads stored values; never locks, creates or repairs anything.
// The public readers of quota files, for hosts and for the commands.
#include <spoolcap/quota.h>
#include "main/quota/kinds.h"
#include "main/quota/place.h"
#include "main/quota/record.h"
#include "main/quota/tree_paths.h"
#include "main/sql/query.h"

namespace {

// The account's quota directory; empty when there is none.
// How many ids above are given tells the level.
std::string directory_of(int account_id, int parent_id, int grandparent_id) {
  std::string path;
  if (grandparent_id != 0) {
    make_qpaths(QUOTA_ALL_KINDS, grandparent_id, parent_id, account_id, nullptr, nullptr, &path);
  } else if (parent_id != 0) {
    make_qpaths(QUOTA_ALL_KINDS, parent_id, account_id, 0, nullptr, &path, nullptr);
  } else {
    make_qpaths(QUOTA_ALL_KINDS, account_id, 0, 0, &path, nullptr, nullptr);
  }
  return path;
}

int read_by_place(int account_id, unsigned kind, int64_t *values, int *revisions) {
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  located_account found;
  const int error = locate(session.get(), account_id, found);
  if (error != 0) return error;
  int parent = found.parent;
  switch (found.level) {
    case LEVEL_RESELLER:
      parent = 0;  // the root has no directory
      break;
    case LEVEL_CLIENT:
    case LEVEL_OWNER:
      break;
    default:
      return -1;
  }
  return quota_read(static_cast<unsigned>(account_id), static_cast<unsigned>(parent),
                    static_cast<unsigned>(found.grandparent), kind, values, revisions);
}

}  // namespace

int quota_read(unsigned account_id, unsigned parent_id, unsigned grandparent_id, unsigned kind,
               int64_t *values, int *revisions) {
  if (kind > QUOTA_ALL_KINDS || values == nullptr || account_id == 0) return -1;
  if (grandparent_id != 0 && parent_id == 0) return -1;
  return no_throw(-1, [&] {
    quota_folder folder(directory_of(static_cast<int>(account_id), static_cast<int>(parent_id),
                                     static_cast<int>(grandparent_id)));
    // Not looked at: without a folder every file below is missing and reads as -1.
    folder.open();
    size_t slot = 0;
    // `values` has a slot for each kind asked for: one, or all five.
    for_each_kind(kind, [&](unsigned one) {
      const quota_file file = folder.open_to_read(media_kinds[one].quota_file);
      const std::optional<quota_record> record = file ? record_of(file) : std::nullopt;
      values[slot] = record ? record->value : -1;
      if (revisions != nullptr) revisions[slot] = record ? record->revision : -1;
      ++slot;
      return true;
    });
    return 0;
  });
}

int quota_read_sql(int account_id, unsigned kind, int64_t *values, int *revisions) {
  return no_throw(-1, [&] { return read_by_place(account_id, kind, values, revisions); });
}
