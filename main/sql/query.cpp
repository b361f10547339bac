#include "main/sql/query.h"

#include <errmsg.h>

#include <cstring>

bool has_lacked_memory(SessionHandle session) {
  // Without an error of its own a statement never came as far as the client library.
  const unsigned code = mysql_errno(fr_sql_conn_get_mysql(session));
  return code == 0 || code == CR_OUT_OF_MEMORY;
}

int sql_vquery(const call_site &site, SessionHandle session, sql_result &result, const char *format,
               va_list arguments) {
  result.reset();
  MYSQL_RES *rows = nullptr;
  const int status = fr_sql_conn_vquery(session, 1, &rows, format, arguments);
  result.reset(rows);
  if (status != 0) log_mysql_error(site, session);
  return status;
}

int sql_query(const call_site &site, SessionHandle session, sql_result &result, const char *format,
              ...) {
  va_list arguments;
  va_start(arguments, format);
  const int status = sql_vquery(site, session, result, format, arguments);
  va_end(arguments);
  return status;
}

c_string sql_text(const call_site &site, SessionHandle session, const char *format, ...) {
  const sql_session own(session);
  if (!own) {
    log_condition_failed(site);
    return nullptr;
  }
  sql_result rows;
  va_list arguments;
  va_start(arguments, format);
  sql_vquery(site, own.get(), rows, format, arguments);
  va_end(arguments);
  const MYSQL_ROW row = rows ? mysql_fetch_row(rows.get()) : nullptr;
  if (row == nullptr) return nullptr;
  if (row[0] == nullptr) log_condition_failed(site);
  return c_string(row[0] == nullptr ? nullptr : strdup(row[0]));
}
