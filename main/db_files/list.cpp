// Lists of stored files: read from the database for an extension, or for the names in a text.
// Results are the caller's, from malloc. Touches no file.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <spoolcap/zarn_db_files.h>
#include "main/account/media.h"
#include "main/sql/query.h"
#include "platform/base/text.h"

namespace {

constexpr char list_statement[] = "SELECT id,filesize,%s,%s,se,az FROM %s WHERE extension_id=%d %s";
constexpr char parse_statement[] =
    "SELECT filesize, filename, se, az FROM %s WHERE id in (%s)ORDER BY FIELD(id, %s)";

// What narrows and orders the statement of a list; throws when memory is short.
std::string suffix_of(const char *folder, const char *order_by) {
  std::string suffix;
  if (folder != nullptr) suffix.append(" AND folder='").append(folder).append("'");
  if (order_by != nullptr) suffix.append(" ORDER BY ").append(order_by);
  return suffix;
}

char *copy_or_null(const char *column) {
  return column == nullptr ? nullptr : copy_text(column).release();
}

// A file without a size counts as empty.
int64_t size_of(const char *column) {
  return column == nullptr ? 0 : std::strtoll(column, nullptr, 10);
}

// All of it zero, so that the list can be reset at any time from here on.
void allocate_records(qx_db_file_list_t &list, uint64_t count) {
  if (count == 0) return;
  list.records = static_cast<qx_db_file_t *>(std::calloc(count, sizeof(qx_db_file_t)));
  if (list.records == nullptr) throw std::bad_alloc();
  list.count = count;
}

// Gets the caller's list ready and has it filled; a failure leaves it empty. Short memory is
// logged as a failed condition.
template <class Fill>
int64_t fill_list(const call_site &site, qx_db_file_list_t **list, Fill &&fill) noexcept {
  if (*list == nullptr) {
    *list = static_cast<qx_db_file_list_t *>(std::calloc(1, sizeof(qx_db_file_list_t)));
  } else {
    qx_reset_db_files(*list);
  }
  const auto filled = no_throw<std::optional<bool>>(std::nullopt, [&]() -> std::optional<bool> {
    const sql_session session;
    if (*list == nullptr || !session) return std::nullopt;
    return fill(session.get(), **list);
  });
  if (!filled) log_condition_failed(site);
  if (filled && *filled) return static_cast<int64_t>((*list)->count);
  qx_reset_db_files(*list);
  return -1;
}

bool is_result(const call_site &site, const sql_result &result) {
  if (result) return true;
  log_condition_failed(site);
  return false;
}

// Ids and extensions of a text; returns the ids as the statement takes them. Each file uses up a
// dot at least, so there is a record for it.
// The text is like "17.wav 18.mp3"; a part without a dot ends it.
std::string read_names(std::string_view text, qx_db_file_list_t &list) {
  std::string ids;
  for (uint64_t next = 0; next < list.count; ++next) {
    const size_t dot = text.find('.');
    if (dot == std::string_view::npos) break;
    const std::string id(text.substr(0, dot));
    text.remove_prefix(dot + 1);
    const size_t blank = std::min(text.find(' '), text.size());
    list.records[next].id = std::strtoul(id.c_str(), nullptr, 10);
    list.records[next].ext = copy_text(text.substr(0, blank)).release();
    if (next > 0) ids += ", ";
    ids += id;
    if (blank == text.size()) break;
    text.remove_prefix(blank + 1);
  }
  return ids;
}

}  // namespace

int64_t qx_list_db_files(const char *table, int extension_id, const char *folder,
                         const char *order_by, qx_db_file_list_t **list) {
  if (table == nullptr || list == nullptr) return -1;
  const call_site here = QX_HERE;
  return fill_list(here, list, [&](SessionHandle session, qx_db_file_list_t &files) {
    const media_rows columns = rows_of_table(table);
    sql_result rows;
    if (sql_query(here, session, rows, list_statement, columns.extension, columns.filename, table,
                  extension_id, suffix_of(folder, order_by).c_str()) != 0) {
      return false;
    }
    if (!is_result(here, rows)) return false;
    allocate_records(files, mysql_num_rows(rows.get()));
    for (uint64_t i = 0; i < files.count; ++i) {
      const MYSQL_ROW row = mysql_fetch_row(rows.get());
      if (row == nullptr) return false;
      qx_db_file_t &file = files.records[i];
      file.id = row[0] == nullptr ? 0 : std::strtoul(row[0], nullptr, 10);
      file.filesize = size_of(row[1]);
      // Never NULL, unlike the three below.
      file.ext = copy_text(row[2] == nullptr ? "" : row[2]).release();
      file.filename = copy_or_null(row[3]);
      file.se = copy_or_null(row[4]);
      file.az = copy_or_null(row[5]);
    }
    return true;
  });
}

int64_t qx_parse_db_files(const char *table, const char *names, qx_db_file_list_t **list) {
  if (table == nullptr || names == nullptr || list == nullptr) return -1;
  const call_site here = QX_HERE;
  return fill_list(here, list, [&](SessionHandle session, qx_db_file_list_t &files) {
    const std::string_view text(names);
    allocate_records(files, static_cast<uint64_t>(std::count(text.begin(), text.end(), '.')));
    if (files.count == 0) return true;
    const std::string ids = read_names(text, files);
    sql_result rows;
    if (sql_query(here, session, rows, parse_statement, table, ids.c_str(), ids.c_str()) != 0) {
      return false;
    }
    if (!is_result(here, rows)) return false;
    // The statement takes the ids as they stand in the text, so it may give any number of rows.
    for (uint64_t i = 0; i < files.count; ++i) {
      const MYSQL_ROW row = mysql_fetch_row(rows.get());
      if (row == nullptr) break;
      qx_db_file_t &file = files.records[i];
      file.filesize = size_of(row[0]);
      file.filename = copy_or_null(row[1]);
      file.se = copy_or_null(row[2]);
      file.az = copy_or_null(row[3]);
    }
    return true;
  });
}

void qx_reset_db_files(qx_db_file_list_t *list) {
  if (list == nullptr) return;
  for (uint64_t i = 0; list->records != nullptr && i < list->count; ++i) {
    const qx_db_file_t &file = list->records[i];
    for (char *text : {file.ext, file.filename, file.se, file.az}) std::free(text);
  }
  std::free(list->records);
  *list = {};
}

void qx_release_db_files(qx_db_file_list_t **list) {
  if (list == nullptr || *list == nullptr) return;
  qx_reset_db_files(*list);
  std::free(*list);
  *list = nullptr;
}
