// What the modules share for their statements: owners of sessions and result sets, escaping, single
// values, and the diagnostic of a failed statement.
#ifndef MAIN_SQL_QUERY_H
#define MAIN_SQL_QUERY_H

#include <cstdarg>
#include <string>

#include <spoolcap/sqlsession.h>
#include "platform/base/diagnostics.h"
#include "platform/sql/handles.h"
#include "platform/sql/sqlpool.h"

// A session for the length of a scope: the caller's when it gave one, else one of its own that is
// released at the end. Empty when none could be had.
// Belongs to one thread at a time, as the session in it does.
class sql_session {
 public:
  explicit sql_session(SessionHandle borrowed = nullptr) noexcept
      : owned_(borrowed == nullptr ? sess_init() : nullptr),
        handle_(borrowed == nullptr ? owned_ : borrowed) {}
  sql_session(const sql_session &) = delete;
  sql_session &operator=(const sql_session &) = delete;
  ~sql_session() { release(); }

  SessionHandle get() const noexcept { return handle_; }
  // Borrowed from this object; null when none could be had.
  explicit operator bool() const noexcept { return handle_ != nullptr; }

  // Gives an own session back early; a result set that was read stays valid.
  void release() noexcept {
    sess_destroy(owned_);
    owned_ = nullptr;
    handle_ = nullptr;
  }

 private:
  SessionHandle owned_;
  SessionHandle handle_;
};

// Text with a backslash before each backslash, double quote and single quote.
std::string escape_sql(const char *text);

// The next row; NULL when there is none or no result.
inline MYSQL_ROW next_row(MYSQL_RES *rows) noexcept {
  return rows == nullptr ? nullptr : mysql_fetch_row(rows);
}

// The first column of the next row, borrowed from the result; NULL when there is no row, and for a
// NULL column.
inline const char *first_column(MYSQL_RES *rows) noexcept {
  const MYSQL_ROW row = next_row(rows);
  return row == nullptr ? nullptr : row[0];
}

// Logs "<source>:<function>:<line> -MySQL error: <text>" for the session's last statement.
inline void log_mysql_error(const call_site &site, SessionHandle session) noexcept {
  QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%s:%d -MySQL error: %s\n", site.source, site.function,
            site.line, mysql_error(fr_sql_conn_get_mysql(session)));
}

// Whether the session's last statement failed because memory ran short on this side.
bool has_lacked_memory(SessionHandle session);

// Runs a printf-style statement; 0 and the result set (null when the statement gives none), or
// non-zero, logged in the name of `site`.
int sql_query(const call_site &site, SessionHandle session, sql_result &result, const char *format,
              ...) noexcept __attribute__((format(printf, 4, 5)));

int sql_vquery(const call_site &site, SessionHandle session, sql_result &result, const char *format,
               va_list arguments) noexcept __attribute__((format(printf, 4, 0)));

// The first column of a statement's first row; null when there is none. Runs on the caller's
// session, or on a session of its own when that is NULL. A failed statement is logged as above; a
// NULL column and a missing session are failed conditions.
c_string sql_text(const call_site &site, SessionHandle session, const char *format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// The same as a number, -1 when there is none.
int sql_number(const call_site &site, SessionHandle session, const char *format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

#endif
