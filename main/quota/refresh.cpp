// Walks a subtree of accounts, children first, and rewrites their quota files. What it could not
// know or finish it leaves with a redo mark, so that the next refresh makes it good.
#include "main/quota/refresh.h"

#include <climits>
#include <cstdlib>
#include <new>

#include <spoolcap/quota.h>
#include <spoolcap/zarn_str.h>
#include "main/quota/kinds.h"
#include "main/quota/marks.h"
#include "main/quota/place.h"
#include "main/quota/record.h"
#include "main/quota/settings.h"
#include "main/quota/tally.h"
#include "main/quota/tree_paths.h"
#include "main/quota/usage.h"

namespace {

// How far the refresh of one account came: the result as quota_update_subtree gives it, and the
// kinds whose new figure rests on something that failed.
struct outcome {
  int result;
  kind_set uncertain;
};

outcome stopped(unsigned kind) {
  return {-1, set_of(kind)};
}

// The parent chain has three levels in a sound tree, so a walk along it costs little.
bool is_on_path(const tree_account *deepest, int id) {
  for (const tree_account *one = deepest; one != nullptr; one = one->above) {
    if (std::atoi(one->id) == id) return true;
  }
  return false;
}

// The refresh of one account: the accounts below it first, then its own files.
class account_refresh {
 public:
  // `directory` is the account's quota directory and is used for those of the accounts below.
  account_refresh(const tree_account &self, unsigned kind, std::string &directory, int force_depth)
      : self_(self),
        kind_(kind),
        directory_(directory),
        force_depth_(force_depth),
        folder_(directory.ends_with('/') ? directory.substr(0, directory.size() - 1) : directory),
        redo_(folder_) {}

  // `value` becomes that of the last kind handled.
  outcome run(int64_t &value);

 private:
  outcome refresh(int64_t &value);
  bool is_forced() const { return force_depth_ > 0; }
  bool has_children() const { return self_.level < LEVEL_OWNER; }
  outcome refresh_children();
  void mark_before_children();
  outcome refresh_kind(unsigned kind, bool certain, int64_t &value);
  bool is_fresh(unsigned kind, int64_t &value) const;
  bool store(unsigned kind, int64_t value, bool certain);
  outcome stop();

  const tree_account &self_;
  unsigned kind_;
  std::string &directory_;
  int force_depth_;
  quota_folder folder_;
  redo_mark redo_;
};

outcome refresh_account(const tree_account &self, unsigned kind, std::string &directory,
                        int64_t *total, int force_depth) {
  int64_t value = 0;
  outcome done = stopped(kind);
  try {
    // Nothing can be stored below a path that no call takes. Damaged data may nest accounts that
    // deep; the end is then here and not that of the call stack.
    if (!directory.empty() && directory.size() < PATH_MAX) {
      done = account_refresh(self, kind, directory, force_depth).run(value);
    }
  } catch (const std::bad_alloc &) {
    QX_LOG(FR_LOG_ERROR, "%s:%d:no memory to refresh account %s\n", QX_LOG_SOURCE, __LINE__,
           self.id);
    no_throw(false, [&] {
      quota_folder folder(directory);
      return redo_mark(folder).set();
    });
  }
  if (total != nullptr) *total = value;
  return done;
}

outcome account_refresh::run(int64_t &value) {
  // A foreign link in place of the folder: skip it with all accounts below it.
  if (!folder_.open() && errno == ELOOP) {
    ++the_tally.skipped;
    return stopped(kind_);
  }
  const outcome done = refresh(value);
  ++(done.result == 0 && done.uncertain == 0 ? the_tally.refreshed : the_tally.failed);
  return done;
}

outcome account_refresh::refresh(int64_t &value) {
  if (folder_.is_open()) folder_.hand_over();
  outcome children{0, 0};
  if (has_children()) children = refresh_children();
  if (children.result != 0) return stop();
  if (is_forced()) {
    folder_.open();  // which the first account below may just have made
  } else {
    redo_.look();
  }

  kind_set uncertain = 0;
  const bool finished = for_each_kind(kind_, [&](unsigned kind) {
    const bool certain = (children.uncertain & set_of(kind)) == 0;
    const outcome step = refresh_kind(kind, certain, value);
    uncertain |= step.uncertain;
    // Only the account that was asked for: its figure has all below it.
    if (self_.above == nullptr) the_tally.add(kind, value);
    return step.result == 0;
  });
  if (!finished) return stop();
  if (uncertain == 0) redo_.settle(kind_ == QUOTA_ALL_KINDS);
  return {0, uncertain};
}

// What was there stays; the next refresh begins again.
outcome account_refresh::stop() {
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) == 0) redo_.set();
  return stopped(kind_);
}

// Refreshes the accounts below, each with its whole subtree.
outcome account_refresh::refresh_children() {
  // The leading, doubled and trailing blanks belong to the statement as operators know it.
  const sql_result rows = rows_of({QX_LOG_SOURCE, "quota_update_subtree", __LINE__},
                                  " SELECT client.id, client.level  FROM client WHERE "
                                  "client.parent_client_id = '%s' ",
                                  self_.id);
  if (!rows) return stopped(kind_);
  if (is_forced() && ::mysql_num_rows(rows.get()) > 0) mark_before_children();
  folder_.close();  // or a deep tree would take a descriptor for each level
  const size_t length = directory_.size();
  const int child_depth = is_forced() ? force_depth_ - 1 : 0;
  kind_set uncertain = 0;
  while (MYSQL_ROW row = ::mysql_fetch_row(rows.get())) {
    if (row[0] == nullptr || row[1] == nullptr) return stopped(kind_);
    // An account that is its own ancestor can only be damaged data: the walk would never end.
    if (is_on_path(&self_, std::atoi(row[0]))) continue;
    const tree_account child{row[0], self_.id, self_.parent_id, std::atoi(row[1]), &self_};
    // Children go by the id as the database gives it, in directories without leading zeros.
    quota_str_append(directory_, 0, child.id);
    // What becomes of a child stops neither its siblings nor its parent.
    uncertain |= refresh_account(child, kind_, directory_, nullptr, child_depth).uncertain;
    directory_.resize(length);
  }
  return {0, uncertain};
}

// A forced refresh rewrites an account's files after those of its children. A run that is killed in
// between must not leave clean files with an old sum behind.
void account_refresh::mark_before_children() {
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0 || redo_.set()) return;
  if (errno != ENOSPC && errno != EDQUOT) return;
  // No room even for a mark: a revision out of range serves as well.
  for_each_kind(kind_, [&](unsigned kind) {
    expire_quota_file(folder_, media_kinds[kind].quota_file);
    return true;
  });
}

// Whether an unforced refresh leaves the file unchanged; its value is then in `value`.
bool account_refresh::is_fresh(unsigned kind, int64_t &value) const {
  const char *file = media_kinds[kind].quota_file;
  return !redo_.was_there() && is_dirty(folder_, file) == 0 &&
         is_rev_inrange(folder_, file, &value) == 1;
}

// Recomputes one kind, or leaves it when its file is still good. `certain` is false when a child's
// value rests on something that failed.
outcome account_refresh::refresh_kind(unsigned kind, bool certain, int64_t &value) {
  if (!is_forced() && is_fresh(kind, value)) return {0, 0};
  // What cannot be measured counts as nothing, and does not stop the rest.
  const usage own = own_usage(self_, kind);
  value = own.bytes;
  certain = certain && own.certain;
  if (has_children() && grab_child_quotas(self_.id, self_.parent_id, self_.grandparent_id, kind,
                                          folder_, &value, &certain) != 0) {
    return stopped(kind);
  }
  uid_t uid = 0;
  gid_t gid = 0;
  if (owner_ids(&uid, &gid) != 0) return stopped(kind);
  folder_.make(uid, gid);
  return {0, store(kind, value, certain) && certain ? 0 : set_of(kind)};
}

// Puts a computed value into its file; true when it is there. What is not certain is noted before.
bool account_refresh::store(unsigned kind, int64_t value, bool certain) {
  const char *file = media_kinds[kind].quota_file;
  // No room even for a mark: a revision out of range serves as well.
  const int revision = certain || redo_.set() ? 0 : expired_revision;
  bool written = false;
  quota_real_update(folder_, file, value, revision, &written);
  // The dirty mark goes after a write. After a failed one it goes only if the redo mark could be
  // set.
  if (written || redo_.set()) unset_dirty(folder_, file);
  return written;
}

// Finds the account and its quota directory; empty for a level without one.
int find_target(int account_id, located_account &found, std::string &directory) {
  const sql_session session;
  if (!session) {
    log_condition_failed({QX_LOG_SOURCE, "quota_update_slow_internal", __LINE__});
    return -1;
  }
  const int error = locate(session.get(), account_id, found);
  if (error != 0) return error;
  const tree_place place = place_of(account_id, found);
  if (place.reseller < 1) return 0;
  std::string *const reseller = found.level == LEVEL_RESELLER ? &directory : nullptr;
  std::string *const client = found.level == LEVEL_CLIENT ? &directory : nullptr;
  std::string *const owner = found.level == LEVEL_OWNER ? &directory : nullptr;
  return make_qpaths(QUOTA_ALL_KINDS, place.reseller, place.client, place.owner, reseller, client,
                     owner);
}

}  // namespace

int quota_update_subtree(const char *id, const char *parent_id, const char *grandparent_id,
                         int level, unsigned kind, std::string &directory, int64_t *total,
                         int force_depth, int64_t * /*scratch*/) {
  if (kind > QUOTA_ALL_KINDS) return -1;
  const tree_account self{id, parent_id, grandparent_id, level, nullptr};
  return refresh_account(self, kind, directory, total, force_depth).result;
}

int quota_update_slow_internal(int account_id, unsigned kind, int64_t *total, int force,
                               int64_t *scratch) {
  if (kind > QUOTA_ALL_KINDS) return -1;
  const quota_umask mask;
  // Four digits, and only the last four of a longer id: the target's statements and media paths
  // have always been made with that text, so a longer id is refreshed under the wrong number.
  const c_string id(ast_pad_id(account_id, 4));
  if (!id) return -2;
  located_account found;
  std::string directory;
  const int error = find_target(account_id, found, directory);
  if (error != 0) return error;
  const auto text = [](const std::string &one) { return one.empty() ? nullptr : one.c_str(); };
  // Drop the walk's own result: callers go by whether the account could be found. The next refresh
  // repairs one that stopped half way.
  quota_update_subtree(id.get(), text(found.parent_text), text(found.grandparent_text), found.level,
                       kind, directory, total, force, scratch);
  return 0;
}

int quota_update_slow(int account_id, unsigned kind, int64_t *total, int force) {
  return no_throw(-1, [&] {
    int64_t scratch = 0;
    return quota_update_slow_internal(account_id, kind, total, force, &scratch);
  });
}
