// Several named parameters at once: one cache read per run of names that share a key, one
// statement for all that is missing.
#include "main/cache/parameters.h"

#include <strings.h>

#include <cstring>
#include <string>
#include <vector>

#include "main/cache/client.h"
#include "platform/base/text.h"

namespace {

// The work on one query. All arrays have a slot per name.
struct parameter_lookup {
  const call_site &site;
  const parameter_query &query;

  std::vector<const cache_binding *> bindings;  // NULL: asked from the database, never cached
  text_array values;
  std::vector<size_t> missing;  // slots that the cache did not fill

  void read_cache();
  std::string missing_list() const;
  bool read_database();
  void take_columns(MYSQL_RES *rows);
  void take_rows(MYSQL_RES *rows);
  void write_back() const;
};

// Names that follow one another and whose key formats have equal texts are read together.
void parameter_lookup::read_cache() {
  std::vector<const char *> fields;
  for (size_t first = 0; first < bindings.size();) {
    const cache_binding *const binding = bindings[first];
    if (binding == nullptr) {
      ++first;
      continue;
    }
    // One HMGET for each run: parameters of one account usually share one hash.
    fields.clear();
    for (size_t i = first; i < bindings.size() && bindings[i] != nullptr &&
                           std::strcmp(bindings[i]->key_format, binding->key_format) == 0;
         ++i) {
      fields.push_back(bindings[i]->field);
    }
    if (const c_string key = query.key_argument.format(binding->key_format)) {
      text_array found = rmget_hash_key({site.source, "rmget_hash", __LINE__}, binding->persistent,
                                        key.get(), fields.data(), fields.size());
      for (size_t i = 0; i < found.count(); ++i) values.set(first + i, found.take(i));
    }
    first += fields.size();
  }
  for (size_t i = 0; i < values.count(); ++i) {
    if (values[i] == nullptr) missing.push_back(i);
  }
}

// In column mode the names are columns and stand bare. Else they are values of `param`. They are
// constants of the caller's code and not escaped.
std::string parameter_lookup::missing_list() const {
  const char *const quote = query.column_mode ? "" : "'";
  std::string list;
  for (const size_t slot : missing) {
    if (!list.empty()) list += ',';
    list.append(quote).append(query.names[slot]).append(quote);
  }
  return list;
}

c_string value_or_null_marker(const char *column) {
  return copy_text(column == nullptr ? QX_CACHE_NULL : column);
}

// One row, its columns in the order of the missing names.
void parameter_lookup::take_columns(MYSQL_RES *rows) {
  const MYSQL_ROW row = mysql_fetch_row(rows);
  if (row == nullptr) return;
  const size_t columns = std::min<size_t>(missing.size(), mysql_num_fields(rows));
  for (size_t i = 0; i < columns; ++i) values.set(missing[i], value_or_null_marker(row[i]));
}

// Rows of (parameter, value). Names are compared with their case, and a row for a name that was not
// asked in this spelling is skipped. Of a name that was asked twice the first slot takes the value;
// the other one stays as if there were no row.
void parameter_lookup::take_rows(MYSQL_RES *rows) {
  if (mysql_num_fields(rows) < 2) return;
  while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
    if (row[0] == nullptr) continue;
    const auto slot = std::find_if(missing.begin(), missing.end(), [&](size_t candidate) {
      return std::strcmp(query.names[candidate], row[0]) == 0;
    });
    if (slot != missing.end()) values.set(*slot, value_or_null_marker(row[1]));
  }
}

// Fills every missing slot; false when the database cannot be asked or fails.
bool parameter_lookup::read_database() {
  const char *const argument = query.argument;
  const std::string list = missing_list();
  const std::string escaped = argument == nullptr ? "" : escape_sql(argument);
  const sql_session session;
  if (!session) {
    log_condition_failed({site.source, site.function, __LINE__});
    return false;
  }
  // In column mode the columns stand before the argument, else behind it.
  const char *const first =
      query.column_mode || argument == nullptr ? list.c_str() : escaped.c_str();
  const char *const second = query.column_mode ? escaped.c_str() : list.c_str();
  sql_result rows;
  const int status = argument == nullptr
                         ? sql_query(site, session.get(), rows, query.statement, first)
                         : sql_query(site, session.get(), rows, query.statement, first, second);
  if (status != 0) return false;
  if (!rows) {
    log_condition_failed({site.source, site.function, __LINE__});
    return false;
  }
  if (query.column_mode) {
    take_columns(rows.get());
  } else {
    take_rows(rows.get());
  }
  // A parameter without a row is remembered too, or each lookup would ask the database.
  for (const size_t slot : missing) {
    if (values[slot] == nullptr) values.set(slot, copy_text(QX_CACHE_NO_ROW));
  }
  return true;
}

void parameter_lookup::write_back() const {
  for (const size_t slot : missing) {
    const cache_binding *const binding = bindings[slot];
    if (binding == nullptr) continue;
    if (const c_string key = query.key_argument.format(binding->key_format)) {
      rset_hash_str(site, binding->persistent, key.get(), binding->field, values[slot]);
    }
  }
}

}  // namespace

// Binary search: the order is asserted where each table is defined.
const cache_binding *find_binding(binding_table table, const char *name) noexcept {
  const auto found = std::lower_bound(table.begin(), table.end(), name,
                                      [](const cache_binding &row, const char *wanted) {
                                        return ::strcasecmp(row.name, wanted) < 0;
                                      });
  return found != table.end() && ::strcasecmp(found->name, name) == 0 ? &*found : nullptr;
}

text_array read_parameters(const call_site &site, const parameter_query &query) {
  parameter_lookup lookup = {.site = site,
                             .query = query,
                             .bindings = {},
                             .values = text_array(query.names.size()),
                             .missing = {}};
  for (const char *const name : query.names) {
    lookup.bindings.push_back(find_binding(query.bindings, name));
  }
  lookup.read_cache();
  if (!lookup.missing.empty()) {
    if (!lookup.read_database()) return {};
    lookup.write_back();
  }
  // Last, because markers have to reach the cache before they are hidden.
  for (size_t slot = 0; slot < lookup.values.count(); ++slot) {
    c_string value = lookup.values.take(slot);
    hide_marker(value, query.keep_markers);
    lookup.values.set(slot, std::move(value));
  }
  return std::move(lookup.values);
}
