#include "main/cache/read_through.h"

#include <cstdio>
#include <cstring>

c_string lookup_argument::format(const char *pattern) const {
  char *text = nullptr;
  int length = -1;
  switch (kind_) {
    case kind::none:
      return c_string(strdup(pattern));
    case kind::number:
      length = asprintf(&text, pattern, number_);
      break;
    case kind::text:
      length = asprintf(&text, pattern, text_);
      break;
  }
  return c_string(length < 0 ? nullptr : text);
}

namespace {

// Asks the database; null when it has no value, with the reason logged where one is due.
c_string ask_database(const call_site &site, const field_lookup &lookup,
                      const lookup_argument &argument, SessionHandle session,
                      const row_reader &also) {
  if (lookup.announcement != nullptr) {
    QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%d:%s\n", site.source, site.line, lookup.announcement);
  }
  const c_string statement = argument.format(lookup.statement);
  MYSQL_RES *result = nullptr;
  const bool failed =
      !statement || fr_sql_conn_query(session, 1, &result, "%s", statement.get()) != 0;
  const sql_result rows(result);
  const bool has_row = rows && mysql_num_rows(rows.get()) > 0;
  if (lookup.complaint == nullptr) {
    if (failed) log_mysql_error(site, session);
  } else if (!has_row) {
    const c_string complaint = argument.format(lookup.complaint);
    if (failed) {
      QX_LOG_AT(site, FR_LOG_WARNING, "%s (%s)\n", complaint.get(),
                mysql_error(fr_sql_conn_get_mysql(session)));
    } else {
      QX_LOG_AT(site, FR_LOG_WARNING, "%s\n", complaint.get());
    }
  }
  c_string value = lookup.value_of(rows.get());
  if (also && has_row) {
    mysql_data_seek(rows.get(), 0);
    also(rows.get(), mysql_fetch_row(rows.get()));
  }
  return value;
}

void write_back(const call_site &site, const field_lookup &lookup, const char *key,
                const char *value) {
  const auto write = lookup.unguarded ? cache_hset : rset_hash_str;
  write(site, lookup.persistent, key, lookup.field, value);
}

}  // namespace

field_answer read_through(const call_site &site, const field_lookup &lookup,
                          const lookup_argument &argument, SessionHandle session,
                          const row_reader &also) {
  const c_string key = argument.format(lookup.key_format);
  if (!key) return {nullptr, answer_source::nowhere};

  field_answer answer = {rget_hash_str(site, lookup.persistent, key.get(), lookup.field),
                         answer_source::nowhere};
  if (answer.value && (lookup.usable == nullptr || lookup.usable(answer.value.get()))) {
    answer.source = answer_source::cache;
  } else if (const sql_session own(session); !own) {
    log_condition_failed(site);
  } else if (c_string value = ask_database(site, lookup, argument, own.get(), also)) {
    write_back(site, lookup, key.get(), value.get());
    answer = {std::move(value), answer_source::database};
  }

  char *filtered = answer.value.release();
  filter_cache_return(&filtered, lookup.keep_markers);
  answer.value.reset(filtered);
  return answer;
}

c_string column_or_nothing(MYSQL_RES *rows) {
  const MYSQL_ROW row = next_row(rows);
  return c_string(row == nullptr || row[0] == nullptr ? nullptr : strdup(row[0]));
}

c_string column_or_marker(MYSQL_RES *rows) {
  const MYSQL_ROW row = next_row(rows);
  if (row == nullptr) return c_string(strdup(QX_CACHE_NO_ROW));
  return c_string(strdup(row[0] == nullptr ? QX_CACHE_NULL : row[0]));
}
