// Selects the targets of a run from the database, and walks over them.
// One statement; its rows become the table of the run.
#include "tool/targets.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "main/account/levels.h"
#include "main/sql/query.h"
#include "tool/settings.h"

// The table copies records byte by byte.
static_assert(sizeof(target_record) == 40);

namespace {

// What the command line gave goes into IN(...) as typed: ids and quoted logins, separated by
// commas. An administrator who may run this may also write the database.
constexpr char select_by_uid[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username "
    "\tFROM client, hs_account acc "
    "\tWHERE acc.userID = client.id AND client.id IN(%s)"
    "\tORDER BY client.level";
constexpr char select_by_login[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username "
    "\tFROM client, hs_account acc "
    "\tWHERE acc.userID = client.id AND acc.username IN(%s)"
    "\tORDER BY client.level";
// Only the top of the tree: the refreshes of the subtrees cover every other account.
constexpr char select_all[] =
    "SELECT client.id, client.parent_client_id, client.level, acc.username "
    "\tFROM client, hs_account acc "
    "\tWHERE acc.userID = client.id AND client.level = %d";

bool is_target_level(int level) {
  return level == LEVEL_RESELLER || level == LEVEL_CLIENT || level == LEVEL_OWNER;
}

// The slot of a level in target_record::level_ids; 0 for a level that has none.
int lvl2idx(int level) {
  switch (level) {
    case LEVEL_CLIENT:
      return 1;
    case LEVEL_OWNER:
      return 2;
    default:
      return 0;
  }
}

// Frees what a record owns; the table owns the record itself.
int destroy_client(void *record) {
  auto *target = static_cast<target_record *>(record);
  if (target != nullptr) {
    const c_string login(target->login);
    target->login = nullptr;
  }
  return 0;
}

int run_selection(SessionHandle session, sql_result &rows) {
  const call_site site = {QX_LOG_SOURCE, "get_sql_data", __LINE__};
  switch (run.target_mode) {
    case TARGET_ULOGIN:
      return sql_query(site, session, rows, select_by_login, run.ulogin_list.get());
    case TARGET_ALL:
      return sql_query(site, session, rows, select_all, LEVEL_RESELLER);
    default:
      return sql_query(site, session, rows, select_by_uid, run.uid_list.get());
  }
}

// Id texts fill their slot at most; the rest of the record is not theirs.
void put_level_id(char (&slot)[5], const char *id) {
  const size_t length = std::min(std::strlen(id), sizeof slot - 1);
  std::memcpy(slot, id, length);
  slot[length] = '\0';
}

void add_target(fr_hash_t *table, MYSQL_ROW row) {
  if (std::any_of(row, row + 4, [](const char *column) { return column == nullptr; })) return;

  target_record record = {};
  record.level = std::atoi(row[2]);
  if (!is_target_level(record.level)) return;
  record.level_index = lvl2idx(record.level);
  const int32_t id = std::atoi(row[0]);
  record.parent_id = std::atoi(row[1]);
  if (fr_hash_find<target_record>(table, id) != nullptr) return;

  // The statements give parents first, so a parent among the targets is in the table by now.
  const bool refreshing = run.action != ACTION_SHOW;
  if (fr_hash_find<target_record>(table, record.parent_id) == nullptr) {
    record.selected = refreshing ? 1 : 0;
  } else if (refreshing && run.quiet_flag != 0) {
    return;  // it would be neither refreshed by itself nor printed
  }

  put_level_id(record.level_ids[record.level_index], row[0]);
  if (record.level_index > 0) put_level_id(record.level_ids[record.level_index - 1], row[1]);
  c_string login(::strdup(row[3]));
  record.login = login.get();
  if (!login || fr_hash_force_add(table, id, record) != 0) throw std::bad_alloc();
  // The table's copy of the record owns the text now.
  static_cast<void>(login.release());
}

// Holds the table's lock.
class table_lock {
 public:
  explicit table_lock(fr_hash_t *table) : table_(table) { fr_hash_lock(table); }
  table_lock(const table_lock &) = delete;
  table_lock &operator=(const table_lock &) = delete;
  ~table_lock() { fr_hash_unlock(table_); }

 private:
  fr_hash_t *table_;
};

}  // namespace

target_table get_sql_data() {
  const sql_session session;
  if (!session || run.target_mode == TARGET_NONE) return nullptr;
  target_table table(fr_hash_init_api(1, destroy_client));
  if (table == nullptr) throw std::bad_alloc();

  sql_result rows;
  if (run_selection(session.get(), rows) != 0) {
    if (has_lacked_memory(session.get())) throw std::bad_alloc();
    return table;
  }
  if (rows == nullptr) {
    log_condition_failed(QX_HERE);
    return table;
  }
  while (MYSQL_ROW row = mysql_fetch_row(rows.get())) add_target(table.get(), row);
  if (fr_hash_empty(table.get()) != 0) return nullptr;
  return table;
}

void for_each_target(fr_hash_t *targets,
                     const std::function<void(int32_t id, const target_record &target)> &visit) {
  const table_lock locked(targets);
  const std::unique_ptr<fr_array_t, call_to_release<fr_array_free>> keys(fr_hash_getkeys(targets));
  if (keys == nullptr) throw std::bad_alloc();
  for (size_t i = 0; i < fr_array_length(keys.get()); ++i) {
    const int32_t id = *static_cast<const int32_t *>(fr_array_get(keys.get(), i));
    if (const auto *target = fr_hash_find<target_record>(targets, id)) visit(id, *target);
  }
}
