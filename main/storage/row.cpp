// Updates the row of a stored file.
// One statement for each commit, on a session of its own.
#include "main/storage/row.h"

#include <cstdlib>
#include <cstring>

#include "main/sql/query.h"
#include "main/storage/engine.h"
#include "main/storage/names.h"

namespace {

// Texts are escaped by the caller; table and column are constants of media.h.
constexpr char location_statement[] =
    "UPDATE `%s` SET %s = '%s', se = '%s', az = '%s' WHERE id = '%d' LIMIT 1";

// Whether the session's last UPDATE found a row, changed or not. The first number in the server's
// summary of the statement counts them, in every language of the server. The number of changed rows
// does not serve: it is 0 also for a row that already has these values.
bool has_found_row(SessionHandle session) {
  const char *const told = mysql_info(fr_sql_conn_get_mysql(session));
  const char *const number = told == nullptr ? nullptr : std::strpbrk(told, "0123456789");
  return number == nullptr || std::strtoul(number, nullptr, 10) > 0;
}

// False when there was no session; a statement that fails and a missing row are logged as such.
bool update_row(const media_rows &rows, const qx_storage_session &session, int file_id,
                const std::string &name) {
  const sql_session own;
  if (!own) return false;
  // An object key is found through its row, a local file by its ids or the name its caller chose.
  const bool is_named = session.engine->is_name_in_row;
  sql_result nothing;
  if (sql_query(QX_HERE, own.get(), nothing, location_statement, rows.table, rows.filename,
                is_named ? escape_sql(name.c_str()).c_str() : "", session.engine->word,
                escape_sql(session.location.c_str()).c_str(), file_id) != 0) {
    return true;
  }
  if (!has_found_row(own.get())) {
    QX_LOG(FR_LOG_ERROR, "Table %s has no row %d for the newly stored file [%s].\n\n", rows.table,
           file_id, name.c_str());
  }
  return true;
}

}  // namespace

void record_location(const qx_storage_session &session, int file_id, const std::string &name) {
  const media_rows &rows = media_of_type(session.resource_type).rows;
  if (rows.table == nullptr ||
      no_throw(false, [&] { return update_row(rows, session, file_id, name); })) {
    return;
  }
  QX_LOG(FR_LOG_ERROR, "Fatal: Failed to update the database for the newly stored file [%s].\n\n",
         name.c_str());
}
