#include "sql_owner.h"

#include <cstdarg>

int sql_query(const call_site &site, SessionHandle session, sql_result &result, const char *format,
              ...) {
  result.reset();
  MYSQL_RES *rows = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int status = fr_sql_conn_vquery(session, 1, &rows, format, arguments);
  va_end(arguments);
  result.reset(rows);
  if (status != 0) log_mysql_error(site, session);
  return status;
}
