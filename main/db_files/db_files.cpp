// Stored files: their sums, and the calls of one statement. The lists have a file of their own.
#include <spoolcap/zarn_db_files.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

#include "main/sql/query.h"

namespace {

// The sum of one account's files, by the account's level. The statement of the whole table has no
// use for the account and leaves that argument over. It is kept as it is, naming an alias that it
// does not give: a caller brings the alias with the table, and no account that is measured has
// that level.
struct level_statement {
  int level;
  const char *format;
};

constexpr level_statement statements[] = {
    {100,
     "SELECT SUM(er.filesize) FROM %s as er, extension as e WHERE e.id=er.extension_id and "
     "e.client_id='%s'"},
    {50,
     "SELECT SUM(er.filesize) FROM %s as er, extension as e, client as c WHERE "
     "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id='%s'"},
    {10,
     "SELECT SUM(er.filesize) FROM %s as er, extension as e, client as c, client as cc WHERE "
     "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id=cc.id and "
     "cc.parent_client_id='%s'"},
    {0, "SELECT SUM(er.filesize) FROM %s"},
};

const char *statement_for(int level) {
  for (const level_statement &row : statements) {
    if (row.level == level) return row.format;
  }
  return nullptr;
}

constexpr char count_statement[] = "SELECT COUNT(*) FROM %s WHERE extension_id='%d'";
constexpr char count_in_folder_statement[] =
    "SELECT COUNT(*) FROM %s WHERE extension_id='%d' AND folder='%s'";
constexpr char delete_statement[] = "DELETE FROM %s WHERE id='%llu' ";
constexpr char meta_statement[] = "UPDATE %s SET %s='%s' WHERE id='%llu' ";
constexpr char timestamp_statement[] = "SELECT UNIX_TIMESTAMP(%s) FROM %s WHERE id=%llu";
constexpr char recording_statement[] =
    "SELECT rid from extension_recording, extension where extension_recording.extension_id = "
    "extension.id and callid = '%s' and flow = '%s' and extension.extended_number='%s' order by "
    "rid desc limit 1";

// A session of the call's own; that none could be had is told.
struct told_session : sql_session {
  explicit told_session(const call_site &site) {
    if (!*this) log_condition_failed(site);
  }
};

bool all_given(std::initializer_list<const char *> texts) {
  return std::find(texts.begin(), texts.end(), nullptr) == texts.end();
}

// First column of the first row; NULL when there is none.
const char *first_column(const sql_result &result) {
  const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  return row == nullptr ? nullptr : row[0];
}

}  // namespace

int64_t qx_get_db_files_quota(const char *table, int level, const char *account_id) {
  const char *format = statement_for(level);
  if (format == nullptr) return 0;
  const told_session session(QX_HERE);
  sql_result result;
  if (!session || sql_query(QX_HERE, session.get(), result, format, table, account_id) != 0) {
    return -1;
  }
  const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  if (row == nullptr) return -1;
  return row[0] == nullptr ? 0 : strtoll(row[0], nullptr, 10);
}

int64_t qx_count_db_files(const char *table, int extension_id, const char *folder) {
  if (table == nullptr) return -1;
  const told_session session(QX_HERE);
  if (!session) return -1;
  sql_result result;
  const int status =
      folder == nullptr
          ? sql_query(QX_HERE, session.get(), result, count_statement, table, extension_id)
          : sql_query(QX_HERE, session.get(), result, count_in_folder_statement, table,
                      extension_id, folder);
  const char *const count = status == 0 ? first_column(result) : nullptr;
  return count == nullptr ? -1 : strtoll(count, nullptr, 10);
}

int qx_delete_db_file(const char *table, uint64_t id) {
  if (table == nullptr) return -1;
  const told_session session(QX_HERE);
  sql_result result;
  return session && sql_query(QX_HERE, session.get(), result, delete_statement, table,
                              static_cast<unsigned long long>(id)) == 0
             ? 0
             : -1;
}

int qx_db_file_set_meta(const char *table, uint64_t id, const char *column, const char *value) {
  if (!all_given({table, column, value})) return -1;
  const told_session session(QX_HERE);
  sql_result result;
  return session && sql_query(QX_HERE, session.get(), result, meta_statement, table, column, value,
                              static_cast<unsigned long long>(id)) == 0
             ? 0
             : -1;
}

uint64_t qx_db_file_creation_timestamp(const char *table, uint64_t id, const char *column) {
  if (!all_given({table, column})) return 0;
  const told_session session(QX_HERE);
  sql_result result;
  if (!session || sql_query(QX_HERE, session.get(), result, timestamp_statement, column, table,
                            static_cast<unsigned long long>(id)) != 0) {
    return 0;
  }
  const char *const seconds = first_column(result);
  return seconds == nullptr ? 0 : strtoul(seconds, nullptr, 10);
}

int qx_get_db_recording(const char *call_id, const char *flow, const char *full_number) {
  if (!all_given({call_id, flow, full_number})) return -1;
  const told_session session(QX_HERE);
  sql_result result;
  if (!session || sql_query(QX_HERE, session.get(), result, recording_statement, call_id, flow,
                            full_number) != 0) {
    return -1;
  }
  const char *const rid = first_column(result);
  return rid == nullptr ? -1 : std::atoi(rid);
}
