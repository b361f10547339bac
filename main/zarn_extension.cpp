#include "zarn_extension.h"

#include "read_through.h"
#include "sql_owner.h"

QX_LOG_SOURCE("../main/zarn_extension");

static constexpr char full_number_statement[] =
    "SELECT extended_number FROM extension,client WHERE extension.number='%s' AND "
    "extension.client_id=client.id AND client.parent_client_id='%s'";

char *qx_get_full_number(const char *parent_id, const char *number) {
  if (parent_id == nullptr || number == nullptr) return nullptr;
  const sql_session session;
  if (!session) {
    log_condition_failed(QX_HERE);
    return nullptr;
  }
  return qx_get_full_number_sess(session.get(), parent_id, number);
}

// The arguments go into the statement unescaped, which is kept: they are an id and a short number
// that came from the database, and escaping would change what a number with a quote finds.
char *qx_get_full_number_sess(SessionHandle session, const char *parent_id, const char *number) {
  if (parent_id == nullptr || number == nullptr) return nullptr;
  const sql_session own(session);
  if (!own) {
    log_condition_failed(QX_HERE);
    return nullptr;
  }
  sql_result rows;
  if (sql_query(QX_HERE, own.get(), rows, full_number_statement, number, parent_id) != 0)
    return nullptr;
  const MYSQL_ROW row = rows ? mysql_fetch_row(rows.get()) : nullptr;
  if (row == nullptr) return nullptr;
  if (row[0] == nullptr) log_condition_failed(QX_HERE);
  return column_or_nothing(row).release();
}
