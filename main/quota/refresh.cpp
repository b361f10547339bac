#include "quota/refresh.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "quota/account.h"
#include "quota/store.h"
#include "zarn_str.h"

QX_LOG_SOURCE("../main/quota");

namespace {

// A set of resource kinds, one bit each.
using kind_set = unsigned;

constexpr kind_set set_of(unsigned kind) {
  return kind == QUOTA_ALL_KINDS ? (1U << QUOTA_ALL_KINDS) - 1 : 1U << kind;
}

// How far the refresh of one account came: the result as quota_update_subtree gives it, and the
// kinds whose new figure rests on something that failed.
struct outcome {
  int result;
  kind_set uncertain;
};

outcome stopped(unsigned kind) {
  return {-1, set_of(kind)};
}

// Visits one kind, or all in their order, until a visit gives false; then false.
template <class Visit>
bool for_each_kind(unsigned kind, Visit visit) {
  const bool all = kind == QUOTA_ALL_KINDS;
  for (unsigned one = all ? 0 : kind; one < (all ? kind : kind + 1); ++one) {
    if (!visit(one)) return false;
  }
  return true;
}

std::string file_name(unsigned kind) {
  return std::string(quota_kind_names[kind]) + ".quota";
}

bool is_on_path(const tree_account *deepest, int id) {
  for (const tree_account *one = deepest; one != nullptr; one = one->above) {
    if (std::atoi(one->id) == id) return true;
  }
  return false;
}

outcome refresh_account(const tree_account &self, unsigned kind, char **directory, int64_t *total,
                        int force_depth);

// A forced refresh rewrites an account's files after those of its children. Until then they are
// given a revision that the next refresh recomputes, so that a run that is killed in between leaves
// no clean file with an old sum behind.
void expire_files(unsigned kind, const char *directory) {
  const unique_fd at(::open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!at) return;
  for_each_kind(kind, [&](unsigned one) {
    expire_quota_file(file_name(one).c_str(), at.get());
    return true;
  });
}

// Refreshes the accounts below one, each with its whole subtree.
outcome refresh_children(const tree_account &self, unsigned kind, char **directory,
                         int force_depth) {
  // The leading, doubled and trailing blanks belong to the statement as operators know it.
  const sql_result rows = rows_of({qx_log_source, "quota_update_subtree", __LINE__},
                                  " SELECT client.id, client.level  FROM client WHERE "
                                  "client.parent_client_id = '%s' ",
                                  self.id);
  if (!rows) return stopped(kind);
  if (force_depth > 0) expire_files(kind, *directory);
  const size_t length = std::strlen(*directory);
  const int child_depth = force_depth > 0 ? force_depth - 1 : 0;
  kind_set uncertain = 0;
  while (MYSQL_ROW row = ::mysql_fetch_row(rows.get())) {
    if (row[0] == nullptr || row[1] == nullptr) return {-1, uncertain};
    // An account that is its own ancestor can only be damaged data; the walk would go round in it
    // for ever.
    if (is_on_path(&self, std::atoi(row[0]))) continue;
    // Children go by the id as the database gives it, in directories without leading zeros.
    if (quota_str_append(directory, 0, row[0], 0) == nullptr) {
      (*directory)[length] = '\0';
      return stopped(kind);
    }
    const tree_account child{row[0], self.id, self.parent_id, std::atoi(row[1]), &self};
    // What becomes of a child stops neither its siblings nor its parent.
    uncertain |= refresh_account(child, kind, directory, nullptr, child_depth).uncertain;
    (*directory)[length] = '\0';
  }
  return {0, uncertain};
}

// The directory of an account's quota files. It is opened once it is there, so that the files are
// reached without walking its whole path for each.
class quota_directory {
 public:
  explicit quota_directory(std::string path) : path_(std::move(path)) { open(); }

  const char *path() const { return path_.c_str(); }
  // -1, which no file can be reached by, while the directory is not there.
  int fd() const { return fd_.get(); }

  void make(uid_t uid, gid_t gid) {
    if (fd_) return;
    make_dirs(path(), quota_directory_mode, uid, gid);
    open();
  }

 private:
  void open() { fd_.reset(::open(path(), O_PATH | O_DIRECTORY | O_CLOEXEC)); }

  std::string path_;
  unique_fd fd_;
};

// Puts a computed value into its file; true when it is there. A value that is not certain gets a
// dirty mark with it, so that the next refresh computes it again, forced or not.
bool store_value(const char *file, int at, int64_t value, bool certain) {
  bool written = false;
  if (!certain && set_dirty(file, at) != 0) {
    // No room even for a mark: a revision out of range serves as well.
    quota_real_update(file, value, expired_revision, at, &written);
    return written;
  }
  quota_real_update(file, value, 0, at, &written);
  if (certain && written) unset_dirty(file, at);
  return written;
}

// Recomputes one kind, or leaves it when its file is still good. `uncertain`: the kinds that rest
// on a child which failed.
outcome refresh_kind(const tree_account &self, unsigned kind, quota_directory &directory,
                     int64_t &value, int force_depth, kind_set uncertain) {
  const std::string file = file_name(kind);
  if (force_depth < 1 && is_dirty(file.c_str(), directory.fd()) == 0 &&
      is_rev_inrange(file.c_str(), &value, directory.fd()) == 1) {
    return {0, 0};
  }
  bool certain = (uncertain & set_of(kind)) == 0;
  value = own_usage(self, kind);
  if (value == -1) certain = false;
  // What cannot be measured counts as nothing, and does not stop the rest.
  if (value < 0) value = 0;
  if (self.level < LEVEL_OWNER && grab_child_quotas(self.id, self.parent_id, self.grandparent_id,
                                                    kind, directory.path(), &value) != 0) {
    return stopped(kind);
  }
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return stopped(kind);
  directory.make(uid, gid);
  const bool stored = store_value(file.c_str(), directory.fd(), value, certain);
  return {0, stored && certain ? 0 : set_of(kind)};
}

outcome refresh_steps(const tree_account &self, unsigned kind, char **directory, int64_t &value,
                      int force_depth) {
  if (*directory == nullptr || **directory == '\0') return stopped(kind);
  // Nothing can be stored below a path that no call takes. Damaged data may nest accounts that
  // deep; the end is then here and not that of the call stack.
  if (std::strlen(*directory) >= PATH_MAX) return stopped(kind);

  outcome done{0, 0};
  if (self.level < LEVEL_OWNER) done = refresh_children(self, kind, directory, force_depth);
  if (done.result != 0) return done;

  std::string path(*directory);
  if (path.ends_with('/')) path.pop_back();
  quota_directory place(std::move(path));
  kind_set uncertain = 0;
  const bool finished = for_each_kind(kind, [&](unsigned one) {
    const outcome step = refresh_kind(self, one, place, value, force_depth, done.uncertain);
    uncertain |= step.uncertain;
    return step.result == 0;
  });
  return finished ? outcome{0, uncertain} : stopped(kind);
}

outcome refresh_account(const tree_account &self, unsigned kind, char **directory, int64_t *total,
                        int force_depth) {
  int64_t value = 0;
  const outcome done = refresh_steps(self, kind, directory, value, force_depth);
  if (total != nullptr) *total = value;
  return done;
}

// What the walk of a target starts from.
struct target {
  target() = default;
  target(const target &) = delete;
  target &operator=(const target &) = delete;
  ~target() { std::free(directory); }

  c_string id;
  c_string parent_id;
  c_string grandparent_id;
  int level = 0;
  char *directory = nullptr;  // grows and may move during the walk; null for a level without one
};

int locate(int account_id, target &found) {
  const sql_session session;
  if (!session) {
    log_condition_failed({qx_log_source, "quota_update_slow_internal", __LINE__});
    return -1;
  }
  // Four digits, and only the last four of a longer id: the target's statements and media paths
  // have always been made with that text, so a longer id is refreshed under the wrong number.
  found.id.reset(ast_pad_id(account_id, 4));
  if (!found.id) return -2;
  int parent = 0;
  int grandparent = 0;
  char *text = nullptr;
  int error = get_parid_level(session.get(), account_id, &parent, &text, &found.level, nullptr);
  found.parent_id.reset(text);
  if (error != 0) return error;

  switch (found.level) {
    case LEVEL_RESELLER:
      make_qpaths(QUOTA_ALL_KINDS, account_id, 0, 0, &found.directory, nullptr, nullptr);
      break;
    case LEVEL_CLIENT:
      make_qpaths(QUOTA_ALL_KINDS, parent, account_id, 0, nullptr, &found.directory, nullptr);
      break;
    case LEVEL_OWNER:
      text = nullptr;
      error = get_parentid(session.get(), parent, &grandparent, &text);
      found.grandparent_id.reset(text);
      if (error != 0) return error;
      make_qpaths(QUOTA_ALL_KINDS, grandparent, parent, account_id, nullptr, nullptr,
                  &found.directory);
      break;
    default:
      break;
  }
  return 0;
}

}  // namespace

int quota_update_subtree(const char *id, const char *parent_id, const char *grandparent_id,
                         int level, unsigned kind, char **directory, int64_t *total,
                         int force_depth, int64_t * /*scratch*/) {
  if (kind > QUOTA_ALL_KINDS) return -1;
  const tree_account self{id, parent_id, grandparent_id, level, nullptr};
  return refresh_account(self, kind, directory, total, force_depth).result;
}

int quota_update_slow_internal(int account_id, unsigned kind, int64_t *total, int force,
                               int64_t *scratch) {
  if (kind > QUOTA_ALL_KINDS) return -1;
  const quota_umask mask;
  target found;
  const int error = locate(account_id, found);
  if (error != 0) return error;
  // The walk's own result is dropped: callers go by whether the account could be found, and a
  // refresh that stopped half way is made up for by the next one.
  quota_update_subtree(found.id.get(), found.parent_id.get(), found.grandparent_id.get(),
                       found.level, kind, &found.directory, total, force, scratch);
  return 0;
}

int quota_update_slow(int account_id, unsigned kind, int64_t *total, int force) {
  return no_throw(-1, [&] {
    int64_t scratch = 0;
    return quota_update_slow_internal(account_id, kind, total, force, &scratch);
  });
}
