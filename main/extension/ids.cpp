// The ids of extensions, their users and organisations, and of the accounts that own extensions.
// From the cache where it has them, else from `extension` and `client`.
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <spoolcap/zarn_extension.h>
#include "main/account/levels.h"
#include "main/extension/extension.h"
#include "platform/base/text.h"
#include "platform/base/view.h"

namespace {

enum id_kind : size_t { extension, user, organisation, id_kinds };

// Fields of the hash extension_info_key, one for each kind.
constexpr const char *id_fields[id_kinds] = {"extid", "usrid", "orgid"};

constexpr char two_ids_statement[] =
    "SELECT id, client_id  FROM extension WHERE extended_number='%s'";
constexpr char three_ids_statement[] =
    "SELECT extension.id, client.id, parent_client_id FROM client,extension WHERE "
    "extended_number='%s' AND client.id=extension.client_id ";

constexpr char user_statement[] = "SELECT client_id FROM extension WHERE id='%d'";
constexpr char level_statement[] = "SELECT level FROM client WHERE id='%d'";
constexpr char of_level_statement[] = "SELECT id FROM client WHERE level=%d";
constexpr char children_statement[] = "SELECT id FROM client WHERE parent_client_id='%d'";
constexpr char of_parents_statement[] = "SELECT id FROM client WHERE parent_client_id IN (";

using id_texts = std::array<c_string, id_kinds>;
using id_outs = std::array<int *, id_kinds>;

// False unless all that is wanted was there.
bool ids_from_cache(const call_site &site, const char *key, const id_outs &outs, id_texts &ids) {
  bool complete = true;
  for (size_t kind = 0; kind < id_kinds; ++kind) {
    if (outs[kind] == nullptr) continue;
    ids[kind] = rget_hash_str(site, 0, key, id_fields[kind]);
    if (!ids[kind]) complete = false;
  }
  return complete;
}

// Unlike other lookups this one remembers no absent row: a number that is not known today may be
// given out at any time.
bool ids_from_database(const call_site &site, SessionHandle session, const char *full_number,
                       bool with_organisation, id_texts &ids) {
  const sql_session own(session);
  if (!own) {
    log_condition_failed(site);
    return false;
  }
  sql_result rows;
  if (sql_query(site, own.get(), rows, with_organisation ? three_ids_statement : two_ids_statement,
                escape_sql(full_number).c_str()) != 0) {
    return false;
  }
  const MYSQL_ROW row = next_row(rows.get());
  if (row == nullptr || is_empty(row[extension]) || is_empty(row[user])) return false;
  ids[extension] = copy_text(row[extension]);
  ids[user] = copy_text(row[user]);
  if (with_organisation && row[organisation] != nullptr) {
    ids[organisation] = copy_text(row[organisation]);
  }
  return true;
}

int read_ids(const call_site &site, SessionHandle session, const char *full_number,
             const id_outs &outs) {
  const c_string key = lookup_argument(full_number).format(extension_info_key);
  if (!key) return -1;
  id_texts ids;
  if (!ids_from_cache(site, key.get(), outs, ids)) {
    if (!ids_from_database(site, session, full_number, outs[organisation] != nullptr, ids)) {
      return -1;
    }
    for (size_t kind = 0; kind < id_kinds; ++kind) {
      // Also those that were not asked for: they came with the same row.
      if (ids[kind]) rset_hash_str(site, 0, key.get(), id_fields[kind], ids[kind].get());
    }
  }
  for (size_t kind = 0; kind < id_kinds; ++kind) {
    if (outs[kind] != nullptr) *outs[kind] = number_or(-1, ids[kind]);
  }
  return 0;
}

// Asks for accounts and adds their ids to `ids`; false when the database fails.
template <class... Arguments>
bool add_accounts(const call_site &site, SessionHandle session, std::vector<int> &ids,
                  const char *statement, Arguments... arguments) {
  sql_result rows;
  if (sql_query(site, session, rows, statement, arguments...) != 0) return false;
  while (const MYSQL_ROW row = next_row(rows.get())) {
    if (row[0] != nullptr) ids.push_back(std::atoi(row[0]));
  }
  return true;
}

// The clients of a reseller, and the users of all of them in one statement.
bool add_below_reseller(const call_site &site, SessionHandle session, int reseller,
                        bool with_clients, std::vector<int> &ids) {
  std::vector<int> clients;
  if (!add_accounts(site, session, clients, children_statement, reseller)) return false;
  if (with_clients) ids = clients;
  if (clients.empty()) return true;
  std::string statement = of_parents_statement;
  for (const int client : clients) statement += std::to_string(client) + ",";
  statement.back() = ')';
  return add_accounts(site, session, ids, "%s", statement.c_str());
}

bool add_all(const call_site &site, SessionHandle session, bool with_between,
             std::vector<int> &ids) {
  for (const int level : {LEVEL_RESELLER, LEVEL_CLIENT}) {
    if (with_between && !add_accounts(site, session, ids, of_level_statement, level)) return false;
  }
  return add_accounts(site, session, ids, of_level_statement, LEVEL_OWNER);
}

int *accounts_below(const call_site &site, int account_id, bool with_between) {
  const sql_session session;
  if (!session) {
    log_condition_failed(site);
    return nullptr;
  }
  // Levels between the four known ones count as the next lower one.
  const int level = sql_number(site, session.get(), level_statement, account_id);
  if (level < 0) return nullptr;

  std::vector<int> ids;
  bool known = true;
  if (level >= LEVEL_OWNER) {
    ids.push_back(account_id);
  } else if (level >= LEVEL_CLIENT) {
    known = add_accounts(site, session.get(), ids, children_statement, account_id);
  } else if (level >= LEVEL_RESELLER) {
    known = add_below_reseller(site, session.get(), account_id, with_between, ids);
  } else {
    known = add_all(site, session.get(), with_between, ids);
  }
  if (!known) return nullptr;

  // The end of the list for C callers; no account has this id. They free the array.
  ids.push_back(-1);
  auto *const array = static_cast<int *>(std::malloc(ids.size() * sizeof(int)));
  if (array != nullptr) std::memcpy(array, ids.data(), ids.size() * sizeof(int));
  return array;
}

}  // namespace

int qx_get_extension_ids_sess_internal(SessionHandle session, const char *full_number,
                                       int *extension_id, int *user_id, int *organisation_id) {
  const call_site here = QX_HERE;
  const id_outs outs = {extension_id, user_id, organisation_id};
  // Before anything can fail: unlike elsewhere, outputs are -1 after a failure.
  for (int *const out : outs) {
    if (out != nullptr) *out = -1;
  }
  if (!is_given(here, full_number)) return -1;
  return no_throw(-1, [&] { return read_ids(here, session, full_number, outs); });
}

int qx_get_extension_ids_sess(SessionHandle session, const char *full_number, int *extension_id,
                              int *user_id, int *organisation_id) {
  return qx_get_extension_ids_sess_internal(session, full_number, extension_id, user_id,
                                            organisation_id);
}

int qx_get_extension_ids(const char *full_number, int *extension_id, int *user_id,
                         int *organisation_id) {
  return qx_get_extension_ids_sess_internal(nullptr, full_number, extension_id, user_id,
                                            organisation_id);
}

int qx_get_extension_id(const char *full_number) {
  int id = -1;
  qx_get_extension_ids_sess_internal(nullptr, full_number, &id, nullptr, nullptr);
  return id;
}

int qx_get_extension_usrid(const char *full_number) {
  return qx_get_extension_usrid_sess(nullptr, full_number);
}

int qx_get_extension_usrid_sess(SessionHandle session, const char *full_number) {
  int id = -1;
  qx_get_extension_ids_sess_internal(session, full_number, nullptr, &id, nullptr);
  return id;
}

int qx_get_extension_orgid(const char *full_number) {
  int id = -1;
  qx_get_extension_ids_sess_internal(nullptr, full_number, nullptr, nullptr, &id);
  return id;
}

int qx_get_extension_owner(const char *full_number) {
  return qx_get_extension_orgid(full_number);
}

int qx_get_extension_usrid_from_extid(int extension_id) {
  return sql_number(QX_HERE, nullptr, user_statement, extension_id);
}

int *qx_get_extensions_of(int account_id, int flag) {
  const call_site here = QX_HERE;
  return no_throw<int *>(nullptr, [&] { return accounts_below(here, account_id, flag != 0); });
}
