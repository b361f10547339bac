// One field through the cache, with the diagnostics that all lookups share.
// Reads cache and database, writes the cache only; its callers own the results.
#include "main/cache/read_through.h"

#include <cstring>

#include "platform/base/text.h"

// The pattern has one conversion, which fits the argument: whoever made the lookup sees to that.
c_string lookup_argument::format(const char *pattern) const noexcept {
  switch (kind_) {
    case kind::number:
      return format_text(pattern, number_);
    case kind::text:
      return format_text(pattern, text_);
    case kind::none:
      break;
  }
  return c_string(::strdup(pattern));
}

namespace {

// Asks the database; null when it has no value, with the reason logged where one is due.
c_string ask_database(const call_site &site, const field_lookup &lookup,
                      const lookup_argument &argument, SessionHandle session,
                      const row_reader &also) {
  if (lookup.announcement != nullptr) {
    QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%d:%s\n", site.source, site.line, lookup.announcement);
  }
  // A text goes in unescaped, as zarn_cache.h says: it is the platform's own.
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
  // Also after a failure: column_or_marker then gives the marker of a missing row.
  c_string value = lookup.value_of(rows.get());
  if (also && has_row) {
    // `value_of` has moved the result beyond its first row.
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

field_answer look_up(const call_site &site, const field_lookup &lookup,
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

  hide_marker(answer.value, lookup.keep_markers);
  return answer;
}

}  // namespace

field_answer read_through(const call_site &site, const field_lookup &lookup,
                          const lookup_argument &argument, SessionHandle session,
                          const row_reader &also) noexcept {
  return no_throw<field_answer>({nullptr, answer_source::nowhere},
                                [&] { return look_up(site, lookup, argument, session, also); });
}

c_string column_or_nothing(MYSQL_RES *rows) {
  const char *const column = first_column(rows);
  return c_string(column == nullptr ? nullptr : ::strdup(column));
}

c_string column_or_marker(MYSQL_RES *rows) {
  const MYSQL_ROW row = next_row(rows);
  if (row == nullptr) return c_string(::strdup(QX_CACHE_NO_ROW));
  return c_string(::strdup(row[0] == nullptr ? QX_CACHE_NULL : row[0]));
}
