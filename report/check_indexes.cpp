// Asks the server which indexes its tables have, and names those that are missing.
// Reads only the catalogue of the database; no index is made.
#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <vector>

#include "main/account/media.h"
#include "report/checks.h"
#include "report/statement.h"

namespace {

using columns = std::vector<std::string>;

// An index serves when it begins with the columns; where a statement asks for equality in all of
// them, in any order.
struct needed_index {
  const char *table;
  columns wanted;
  bool in_any_order = false;
};

std::vector<needed_index> needed_indexes() {
  std::vector<needed_index> needed = {
      {"client", {"id"}},         {"client", {"parent_client_id"}},
      {"client", {"level"}},      {"client_prefs", {"client_id", "param"}, true},
      {"hs_account", {"userID"}}, {"hs_account", {"username"}},
      {"extension", {"id"}},      {"extension", {"client_id"}},
  };
  for (const media_kind &kind : media_kinds) {
    if (kind.rows.table == nullptr) continue;
    needed.push_back({kind.rows.table, {"extension_id", "filesize"}});
  }
  return needed;
}

// The columns of each index in their order, by table and index.
using indexes = std::map<std::pair<std::string, std::string>, columns>;

indexes indexes_of_database() {
  indexes found;
  const report_session session;
  for_each_row(
      session.get(),
      "SELECT TABLE_NAME, INDEX_NAME, COLUMN_NAME FROM information_schema.STATISTICS WHERE "
      "TABLE_SCHEMA = DATABASE() AND INDEX_TYPE NOT IN ('FULLTEXT', 'SPATIAL') "
      "ORDER BY TABLE_NAME, INDEX_NAME, SEQ_IN_INDEX",
      [&](const sql_fields &row) {
        found[{std::string(row[0].value_or("")), std::string(row[1].value_or(""))}].emplace_back(
            row[2].value_or(""));
      });
  // An index with a column that this user may not read is not shown, but its first column is.
  for_each_row(session.get(),
               "SELECT TABLE_NAME, COLUMN_NAME FROM information_schema.COLUMNS c "
               "WHERE TABLE_SCHEMA = DATABASE() AND COLUMN_KEY <> '' AND NOT EXISTS "
               "(SELECT 1 FROM information_schema.STATISTICS s WHERE s.TABLE_SCHEMA = DATABASE() "
               "AND s.TABLE_NAME = c.TABLE_NAME AND s.COLUMN_NAME = c.COLUMN_NAME)",
               [&](const sql_fields &row) {
                 const std::string column(row[1].value_or(""));
                 found[{std::string(row[0].value_or("")), "column " + column}] = {column};
               });
  return found;
}

bool is_same_column(const std::string &one, const std::string &other) {
  return ::strcasecmp(one.c_str(), other.c_str()) == 0;
}

bool is_served(const indexes &found, const std::string &table, const columns &wanted,
               bool in_any_order) {
  return std::any_of(found.begin(), found.end(), [&](const auto &index) {
    const columns &has = index.second;
    if (index.first.first != table || has.size() < wanted.size()) return false;
    const auto begin = has.begin();
    return in_any_order ? std::is_permutation(wanted.begin(), wanted.end(), begin, is_same_column)
                        : std::equal(wanted.begin(), wanted.end(), begin, is_same_column);
  });
}

}  // namespace

void check_indexes(findings_writer &out) {
  const indexes found = indexes_of_database();
  for (const auto &[table, wanted, in_any_order] : needed_indexes()) {
    if (is_served(found, table, wanted, in_any_order)) continue;
    const std::string place = fmt::format("{} ({})", table, fmt::join(wanted, ", "));
    out.add({.name = "index_missing",
             .where = place,
             .statement = fmt::format("CREATE INDEX by_{} ON {};", fmt::join(wanted, "_"), place)});
  }
}
