// Statements and the values they give.
// Every module's way to the pool of platform/sql; nothing is kept here.
#include "main/sql/query.h"

#include <errmsg.h>

#include <cstring>

#include "platform/base/text.h"

namespace {

__attribute__((format(printf, 3, 0))) c_string text_of(const call_site &site, SessionHandle session,
                                                       const char *format,
                                                       va_list arguments) noexcept {
  const sql_session own(session);
  if (!own) {
    log_condition_failed(site);
    return nullptr;
  }
  sql_result rows;
  sql_vquery(site, own.get(), rows, format, arguments);
  const MYSQL_ROW row = next_row(rows.get());
  // A failed statement has no rows either, and was logged by sql_vquery.
  if (row == nullptr) return nullptr;
  if (row[0] == nullptr) log_condition_failed(site);
  return c_string(row[0] == nullptr ? nullptr : ::strdup(row[0]));
}

}  // namespace

std::string escape_sql(const char *text) {
  std::string escaped;
  for (; *text != '\0'; ++text) {
    if (*text == '\\' || *text == '"' || *text == '\'') escaped += '\\';
    escaped += *text;
  }
  return escaped;
}

bool has_lacked_memory(SessionHandle session) {
  // No error code: the statement never reached the client library.
  const unsigned code = mysql_errno(fr_sql_conn_get_mysql(session));
  return code == 0 || code == CR_OUT_OF_MEMORY;
}

int sql_vquery(const call_site &site, SessionHandle session, sql_result &result, const char *format,
               va_list arguments) noexcept {
  result.reset();
  MYSQL_RES *rows = nullptr;
  const int status = fr_sql_conn_vquery(session, 1, &rows, format, arguments);
  result.reset(rows);
  if (status != 0) log_mysql_error(site, session);
  return status;
}

int sql_query(const call_site &site, SessionHandle session, sql_result &result, const char *format,
              ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const int status = sql_vquery(site, session, result, format, arguments);
  va_end(arguments);
  return status;
}

c_string sql_text(const call_site &site, SessionHandle session, const char *format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  c_string text = text_of(site, session, format, arguments);
  va_end(arguments);
  return text;
}

int sql_number(const call_site &site, SessionHandle session, const char *format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const c_string text = text_of(site, session, format, arguments);
  va_end(arguments);
  return number_or(-1, text);
}
