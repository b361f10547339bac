#include "quota/account.h"
#include "quota/store.h"
#include "sql_owner.h"

QX_LOG_SOURCE("../main/quota");

namespace {

c_string quota_file_of(int account_id, int parent_id, int grandparent_id, unsigned kind) {
  char *path = nullptr;
  if (grandparent_id != 0) {
    make_qpaths(kind, grandparent_id, parent_id, account_id, nullptr, nullptr, &path);
  } else if (parent_id != 0) {
    make_qpaths(kind, parent_id, account_id, 0, nullptr, &path, nullptr);
  } else {
    make_qpaths(kind, account_id, 0, 0, &path, nullptr, nullptr);
  }
  return c_string(path);
}

int read_by_place(int account_id, unsigned kind, int64_t *values, int *revisions) {
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  int level = 0;
  int parent = 0;
  const int error = get_parid_level(session.get(), account_id, &parent, nullptr, &level, nullptr);
  if (error != 0) return error;

  int grandparent = 0;
  switch (level) {
    case LEVEL_RESELLER:
      parent = 0;  // the root has no directory
      break;
    case LEVEL_CLIENT:
      break;
    case LEVEL_OWNER: {
      const int parent_error = get_parentid(session.get(), parent, &grandparent, nullptr);
      if (parent_error != 0) return parent_error;
      break;
    }
    default:
      return -1;
  }
  return quota_read(static_cast<unsigned>(account_id), static_cast<unsigned>(parent),
                    static_cast<unsigned>(grandparent), kind, values, revisions);
}

}  // namespace

int quota_read(unsigned account_id, unsigned parent_id, unsigned grandparent_id, unsigned kind,
               int64_t *values, int *revisions) {
  if (kind > QUOTA_ALL_KINDS || values == nullptr || account_id == 0) return -1;
  if (grandparent_id != 0 && parent_id == 0) return -1;
  return no_throw(-1, [&] {
    const bool all = kind == QUOTA_ALL_KINDS;
    const unsigned first = all ? 0 : kind;
    const unsigned slots = all ? static_cast<unsigned>(QUOTA_ALL_KINDS) : 1;
    for (unsigned slot = 0; slot < slots; ++slot) {
      int unwanted = 0;
      int *revision = revisions == nullptr ? &unwanted : revisions + slot;
      values[slot] = -1;
      *revision = -1;
      const c_string path = quota_file_of(static_cast<int>(account_id), static_cast<int>(parent_id),
                                          static_cast<int>(grandparent_id), first + slot);
      if (!path) continue;
      const unique_fd file(::open(path.get(), O_RDONLY | O_CLOEXEC));
      if (file) quota_read_internal(file.get(), values + slot, revision);
    }
    return 0;
  });
}

int quota_read_sql(int account_id, unsigned kind, int64_t *values, int *revisions) {
  return no_throw(-1, [&] { return read_by_place(account_id, kind, values, revisions); });
}
