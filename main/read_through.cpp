#include "read_through.h"

#include <cstdio>
#include <cstring>

c_string lookup_argument::key(const char *format) const {
  char *key = nullptr;
  int length = -1;
  switch (kind_) {
    case kind::none:
      return c_string(strdup(format));
    case kind::number:
      length = asprintf(&key, format, number_);
      break;
    case kind::text:
      length = asprintf(&key, format, text_);
      break;
  }
  return c_string(length < 0 ? nullptr : key);
}

int lookup_argument::query(SessionHandle session, sql_result &result, const char *format) const {
  MYSQL_RES *rows = nullptr;
  const int status = kind_ == kind::number ? fr_sql_conn_query(session, 1, &rows, format, number_)
                                           : fr_sql_conn_query(session, 1, &rows, format, text_);
  result.reset(rows);
  return status;
}

namespace {

// Asks the database; null when it has no value, with the reason logged where one is due.
c_string ask_database(const call_site &site, const field_lookup &lookup,
                      const lookup_argument &argument, SessionHandle session) {
  sql_result rows;
  const bool failed = argument.query(session, rows, lookup.statement) != 0;
  const MYSQL_ROW row = rows ? mysql_fetch_row(rows.get()) : nullptr;
  if (lookup.complaint == nullptr) {
    if (failed) log_mysql_error(site, session);
  } else if (row == nullptr) {
    const c_string complaint = argument.text(lookup.complaint);
    if (failed || (rows && mysql_num_rows(rows.get()) > 0))
      QX_LOG_AT(site, FR_LOG_WARNING, "%s (%s)\n", complaint.get(),
                mysql_error(fr_sql_conn_get_mysql(session)));
    else
      QX_LOG_AT(site, FR_LOG_WARNING, "%s\n", complaint.get());
  }
  return lookup.value_of(row, rows.get());
}

}  // namespace

field_answer read_through(const call_site &site, const field_lookup &lookup,
                          const lookup_argument &argument, SessionHandle session) {
  const c_string key = argument.key(lookup.key_format);
  if (!key) return {nullptr, answer_source::nowhere};

  field_answer answer = {rget_hash_str(site, lookup.persistent, key.get(), lookup.field),
                         answer_source::nowhere};
  if (answer.value && (lookup.usable == nullptr || lookup.usable(answer.value.get()))) {
    answer.source = answer_source::cache;
  } else if (const sql_session own(session); !own) {
    log_condition_failed(site);
  } else if (c_string value = ask_database(site, lookup, argument, own.get())) {
    rset_hash_str(site, lookup.persistent, key.get(), lookup.field, value.get());
    answer = {std::move(value), answer_source::database};
  }

  char *filtered = answer.value.release();
  filter_cache_return(&filtered, lookup.keep_markers);
  answer.value.reset(filtered);
  return answer;
}

c_string column_or_nothing(MYSQL_ROW row, MYSQL_RES *) {
  return c_string(row == nullptr || row[0] == nullptr ? nullptr : strdup(row[0]));
}

c_string column_or_marker(MYSQL_ROW row, MYSQL_RES *) {
  if (row == nullptr) return c_string(strdup(QX_CACHE_NO_ROW));
  return c_string(strdup(row[0] == nullptr ? QX_CACHE_NULL : row[0]));
}
