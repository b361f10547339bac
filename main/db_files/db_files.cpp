// Stored files: their sums, and the calls of one statement. The lists have a file of their own.
// Asks and changes the rows of the database; touches no file.
#include <spoolcap/zarn_db_files.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <initializer_list>

#include "main/account/levels.h"
#include "main/sql/query.h"

namespace {

// The sum of one account's files, by the account's level. The statement of the whole table does not
// use the account. It names an alias that the caller must give with the table; that is kept as it
// is, as no account that is measured has that level.
struct level_statement {
  int level;
  const char *format;
};

constexpr level_statement statements[] = {
    {LEVEL_OWNER,
     "SELECT SUM(er.filesize) FROM %s as er, extension as e WHERE e.id=er.extension_id and "
     "e.client_id='%s'"},
    {LEVEL_CLIENT,
     "SELECT SUM(er.filesize) FROM %s as er, extension as e, client as c WHERE "
     "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id='%s'"},
    {LEVEL_RESELLER,
     "SELECT SUM(er.filesize) FROM %s as er, extension as e, client as c, client as cc WHERE "
     "e.id=er.extension_id and e.client_id=c.id and c.parent_client_id=cc.id and "
     "cc.parent_client_id='%s'"},
    {LEVEL_ROOT, "SELECT SUM(er.filesize) FROM %s"},
};

const char *statement_for(int level) noexcept {
  for (const level_statement &row : statements) {
    if (row.level == level) return row.format;
  }
  return nullptr;
}

constexpr char count_statement[] = "SELECT COUNT(*) FROM %s WHERE extension_id='%d'";
constexpr char count_in_folder_statement[] =
    "SELECT COUNT(*) FROM %s WHERE extension_id='%d' AND folder='%s'";
constexpr char delete_statement[] = "DELETE FROM %s WHERE id='%llu' ";
constexpr char meta_statement[] = "UPDATE %s SET %s='%s' WHERE id='%llu' ";
constexpr char timestamp_statement[] = "SELECT UNIX_TIMESTAMP(%s) FROM %s WHERE id=%llu";
constexpr char recording_statement[] =
    "SELECT rid from extension_recording, extension where extension_recording.extension_id = "
    "extension.id and callid = '%s' and flow = '%s' and extension.extended_number='%s' order by "
    "rid desc limit 1";

// Texts go into statements unescaped, as zarn_db_files.h warns its callers.
bool all_given(std::initializer_list<const char *> texts) noexcept {
  return std::find(texts.begin(), texts.end(), nullptr) == texts.end();
}

// What a call's statement gave.
struct answer {
  bool has_run = false;
  sql_result rows;
  MYSQL_ROW row = nullptr;  // the first one

  const char *column() const noexcept { return row == nullptr ? nullptr : row[0]; }
};

// Runs the one statement of a call on a session of its own. A failure is logged.
__attribute__((format(printf, 2, 3))) answer ask(const call_site &site, const char *format,
                                                 ...) noexcept {
  answer given;
  const sql_session session;
  if (!session) {
    log_condition_failed(site);
    return given;
  }
  va_list arguments;
  va_start(arguments, format);
  given.has_run = sql_vquery(site, session.get(), given.rows, format, arguments) == 0;
  va_end(arguments);
  if (given.has_run && given.rows) given.row = mysql_fetch_row(given.rows.get());
  return given;
}

// How the statements take an id.
unsigned long long long_id(uint64_t id) noexcept {
  return id;
}

}  // namespace

int64_t qx_get_db_files_quota(const char *table, int level, const char *account_id) {
  const char *format = statement_for(level);
  if (format == nullptr) return 0;
  const answer sum = ask(QX_HERE, format, table, account_id);
  // A sum over no files is one row with NULL, so no row at all means a failure.
  if (sum.row == nullptr) return -1;
  return sum.column() == nullptr ? 0 : std::strtoll(sum.column(), nullptr, 10);
}

// -1 for a failure, and for a table that is not given.
int64_t qx_count_db_files(const char *table, int extension_id, const char *folder) {
  if (table == nullptr) return -1;
  const answer count = folder == nullptr
                           ? ask(QX_HERE, count_statement, table, extension_id)
                           : ask(QX_HERE, count_in_folder_statement, table, extension_id, folder);
  return count.column() == nullptr ? -1 : std::strtoll(count.column(), nullptr, 10);
}

// Deletes the row only; the file behind it is the affair of file storage.
int qx_delete_db_file(const char *table, uint64_t id) {
  if (table == nullptr) return -1;
  return ask(QX_HERE, delete_statement, table, long_id(id)).has_run ? 0 : -1;
}

int qx_db_file_set_meta(const char *table, uint64_t id, const char *column, const char *value) {
  if (!all_given({table, column, value})) return -1;
  return ask(QX_HERE, meta_statement, table, column, value, long_id(id)).has_run ? 0 : -1;
}

uint64_t qx_db_file_creation_timestamp(const char *table, uint64_t id, const char *column) {
  if (!all_given({table, column})) return 0;
  const answer seconds = ask(QX_HERE, timestamp_statement, column, table, long_id(id));
  return seconds.column() == nullptr ? 0 : std::strtoul(seconds.column(), nullptr, 10);
}

int qx_get_db_recording(const char *call_id, const char *flow, const char *full_number) {
  if (!all_given({call_id, flow, full_number})) return -1;
  const answer rid = ask(QX_HERE, recording_statement, call_id, flow, full_number);
  return rid.column() == nullptr ? -1 : std::atoi(rid.column());
}
