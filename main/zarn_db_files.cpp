#include "zarn_db_files.h"

#include <cstdlib>

#include "sql_owner.h"

QX_LOG_SOURCE("../main/zarn_db_files");

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

}  // namespace

int64_t qx_get_db_files_quota(const char *table, int level, const char *account_id) {
  const char *format = statement_for(level);
  if (format == nullptr) return 0;
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  sql_result result;
  if (sql_query(QX_HERE, session.get(), result, format, table, account_id) != 0) return -1;
  const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  if (row == nullptr) return -1;
  return row[0] == nullptr ? 0 : strtoll(row[0], nullptr, 10);
}
