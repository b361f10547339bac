// Verification: whether an account or one above it has reached its limit. Reads through the fast
// update, with its side effects.
#include <cstdio>
#include <cstdlib>

#include <spoolcap/quota.h>
#include <spoolcap/zarn_user.h>
#include "main/quota/kinds.h"
#include "main/quota/limit.h"
#include "main/quota/place.h"
#include "main/quota/tree_paths.h"
#include "main/sql/query.h"

namespace {

// The result has account and level in one number: the id, and the level times this.
constexpr int level_factor = 10'000'000;

// Limits in bytes along an ancestry; negative: none.
struct tree_limits {
  int64_t reseller = -1;
  int64_t client = -1;
  int64_t owner = -1;

  int64_t *at(int level) {
    if (level == LEVEL_OWNER) return &owner;
    if (level == LEVEL_CLIENT) return &client;
    if (level == LEVEL_RESELLER) return &reseller;
    return nullptr;
  }
};

int64_t limit_of(int account_id, unsigned kind) {
  const c_string kibibytes(qx_account_get_pref(account_id, media_kinds[kind].limit));
  return kibibytes ? limit_in_bytes(kibibytes.get()) : -1;
}

bool is_full(const std::string &path, int64_t limit) {
  if (limit < 0 || path.empty()) return false;
  // A file with a dirty mark gives no value, and is thereby never full. The value comes with 32
  // bits: one of 2 GiB and more wraps, and a negative one is never full. Kept: platforms rely on
  // accounts of that size not being stopped.
  const int value = quota_upd_fast_internal(path.c_str(), 0, -1);
  return value >= 0 && value >= limit;
}

int verify_disk(unsigned kind, const tree_place &place, const tree_limits &limits) {
  if (kind >= QUOTA_ALL_KINDS) return -1;  // there is no file of all kinds
  std::string reseller;
  std::string client;
  std::string owner;
  if (make_qpaths(kind, place.reseller, place.client, place.owner, &reseller, &client, &owner) !=
      0) {
    return -1;
  }
  // Deepest first: the nearest limit is the one that the caller can explain.
  if (is_full(owner, limits.owner)) return place.owner + LEVEL_OWNER * level_factor;
  if (is_full(client, limits.client)) return place.client + LEVEL_CLIENT * level_factor;
  if (is_full(reseller, limits.reseller)) return place.reseller + LEVEL_RESELLER * level_factor;
  return 0;
}

int verify(int account_id, unsigned kind, tree_place &place) {
  if (kind >= QUOTA_ALL_KINDS) return -1;
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  tree_limits limits;
  bool root_met = false;
  const int error = climb_tree(session.get(), account_id, [&](int id, int level) {
    root_met = level == LEVEL_ROOT;
    if (int *const known = place.at(level)) {
      *known = id;
      *limits.at(level) = limit_of(id, kind);
    }
  });
  if (error != 0) return error;
  // An account that hangs below the root directly has no reseller, and so no file.
  return root_met ? 0 : verify_disk(kind, place, limits);
}

}  // namespace

int quota_verify_disk(unsigned kind, int reseller_id, int client_id, int owner_id,
                      int64_t reseller_limit, int64_t client_limit, int64_t owner_limit) {
  return no_throw(-1, [&] {
    return verify_disk(kind, {reseller_id, client_id, owner_id},
                       {reseller_limit, client_limit, owner_limit});
  });
}

int quota_verify(int account_id, unsigned kind) {
  static constexpr char report[] =
      " + quota_verify(target:%d, resid:%d, clid:%d, extid:%d) returned:%d (if >0 it means: "
      "client.id:%d, client.level:%d)\n";
  tree_place place;
  const int result = no_throw(-1, [&] { return verify(account_id, kind, place); });
  const int id = result % level_factor;
  const int level = result / level_factor;
  if (result != 0) {
    QX_LOG(FR_LOG_ERROR, report, static_cast<int>(kind), place.reseller, place.client, place.owner,
           result, id, level);
  }
  // Printed whatever the result is: operators' scripts read this line from a component's output.
  std::printf(report, static_cast<int>(kind), place.reseller, place.client, place.owner, result, id,
              level);
  return result;
}
