#include "main/storage/row.h"

#include <cstdlib>
#include <cstring>

#include "main/sql/query.h"
#include "main/storage/kinds.h"

namespace {

constexpr char location_statement[] =
    "UPDATE `%s` SET %s = '%s', se = '%s', az = '%s' WHERE id = '%d' LIMIT 1";

// Whether the session's last UPDATE found a row, changed or not: the first number that the server
// tells of it, in any of its languages. The number of changed rows is 0 also for a row that already
// says what it has to, and counting found rows instead is an option of the pool's connections.
bool has_found_row(SessionHandle session) {
  const char *const told = mysql_info(fr_sql_conn_get_mysql(session));
  const char *const number = told == nullptr ? nullptr : std::strpbrk(told, "0123456789");
  return number == nullptr || std::strtoul(number, nullptr, 10) > 0;
}

// False when there was no session; a statement that fails and a missing row are logged as such.
bool update_row(const resource_kind &kind, const qx_storage_session &session, int file_id,
                const std::string &name) {
  const sql_session own;
  if (!own) return false;
  // Only an object key is found through its row; a local file by its ids, or by who named it.
  const bool is_named = session.engine == storage_engine::s3;
  sql_result nothing;
  if (sql_query(QX_HERE, own.get(), nothing, location_statement, kind.table, kind.column,
                is_named ? escape_sql(name.c_str()).c_str() : "", word_of(session.engine),
                escape_sql(session.location.c_str()).c_str(), file_id) != 0) {
    return true;
  }
  if (!has_found_row(own.get())) {
    QX_LOG(FR_LOG_ERROR, "Table %s has no row %d for the newly stored file [%s].\n\n", kind.table,
           file_id, name.c_str());
  }
  return true;
}

}  // namespace

void record_location(const qx_storage_session &session, int file_id, const std::string &name) {
  const resource_kind &kind = kind_of(session.resource_type);
  if (kind.table == nullptr ||
      no_throw(false, [&] { return update_row(kind, session, file_id, name); })) {
    return;
  }
  QX_LOG(FR_LOG_ERROR, "Fatal: Failed to update the database for the newly stored file [%s].\n\n",
         name.c_str());
}
