#include "storage/record.h"

#include "sql_owner.h"
#include "storage/kinds.h"
#include "zarn_cache_internal.h"

QX_LOG_SOURCE("../main/zarn_storage");

namespace {

constexpr char location_statement[] =
    "UPDATE `%s` SET %s = '%s', se = '%s', az = '%s' WHERE id = '%d' LIMIT 1";

}  // namespace

void record_location(const qx_storage_session &session, int file_id, const std::string &name) {
  const resource_kind &kind = kind_of(session.resource_type);
  if (kind.table == nullptr) return;
  const sql_session own;
  if (!own) {
    QX_LOG(FR_LOG_ERROR, "Fatal: Failed to update the database for the newly stored file [%s].\n\n",
           name.c_str());
    return;
  }
  // Only an object key is found through its row; a local file by its ids, or by who named it.
  const bool is_named = session.engine == storage_engine::s3;
  sql_result nothing;
  sql_query(QX_HERE, own.get(), nothing, location_statement, kind.table, kind.column,
            is_named ? escape_sql(name.c_str()).c_str() : "", word_of(session.engine),
            escape_sql(session.location.c_str()).c_str(), file_id);
}
