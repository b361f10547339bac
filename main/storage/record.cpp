#include "storage/record.h"

#include <string_view>

#include "sql_owner.h"
#include "storage/kinds.h"
#include "zarn_cache_internal.h"

QX_LOG_SOURCE("../main/zarn_storage");

namespace {

constexpr char location_statement[] =
    "UPDATE `%s` SET %s = '%s', se = '%s', az = '%s' WHERE id = '%d' LIMIT 1";

// False when there was no session or no such row; a statement that fails is logged as one.
bool update_row(const resource_kind &kind, const qx_storage_session &session, int file_id,
                const std::string &name) {
  const sql_session own;
  if (!own) return false;
  // Only an object key is found through its row; a local file by its ids, or by who named it.
  const bool is_named = session.engine == storage_engine::s3;
  sql_result nothing;
  if (sql_query(QX_HERE, own.get(), nothing, location_statement, kind.table, kind.column,
                is_named ? escape_sql(name.c_str()).c_str() : "", word_of(session.engine),
                escape_sql(session.location.c_str()).c_str(), file_id) != 0)
    return true;
  // Not the number of changed rows, which is 0 too where a row already says what it has to.
  const char *const matched = mysql_info(fr_sql_conn_get_mysql(own.get()));
  return matched == nullptr || !std::string_view(matched).starts_with("Rows matched: 0");
}

}  // namespace

void record_location(const qx_storage_session &session, int file_id, const std::string &name) {
  const resource_kind &kind = kind_of(session.resource_type);
  if (kind.table == nullptr ||
      no_throw(false, [&] { return update_row(kind, session, file_id, name); }))
    return;
  QX_LOG(FR_LOG_ERROR, "Fatal: Failed to update the database for the newly stored file [%s].\n\n",
         name.c_str());
}
