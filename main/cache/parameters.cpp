// Several named parameters at once: one cache read per run of names that share a key, one
// statement for all that is missing.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <spoolcap/zarn_cache.h>
#include "main/cache/client.h"
#include "main/cache/read_through.h"

namespace {

// One call of drmget_hash. All arrays have a slot per name.
struct parameter_lookup {
  const call_site &site;
  size_t count;
  const char *const *names;
  const char *sql_format;
  const char *argument;
  lookup_argument key_argument;
  bool column_mode;

  std::vector<const cache_binding *> bindings;  // NULL: asked from the database, never cached
  string_array values;
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
  for (size_t first = 0; first < count;) {
    const cache_binding *const binding = bindings[first];
    if (binding == nullptr) {
      ++first;
      continue;
    }
    fields.clear();
    for (size_t i = first; i < count && bindings[i] != nullptr &&
                           std::strcmp(bindings[i]->key_format, binding->key_format) == 0;
         ++i) {
      fields.push_back(bindings[i]->field);
    }
    if (const c_string key = key_argument.format(binding->key_format)) {
      string_array found =
          rmget_hash_key({site.source, "rmget_hash", __LINE__}, binding->persistent, key.get(),
                         fields.data(), fields.size());
      for (size_t i = 0; i < found.count(); ++i) values.set(first + i, found.take(i));
    }
    first += fields.size();
  }
  for (size_t i = 0; i < count; ++i) {
    if (values[i] == nullptr) missing.push_back(i);
  }
}

std::string parameter_lookup::missing_list() const {
  const char *const quote = column_mode ? "" : "'";
  std::string list;
  for (const size_t slot : missing) {
    if (!list.empty()) list += ',';
    list.append(quote).append(names[slot]).append(quote);
  }
  return list;
}

c_string value_or_null_marker(const char *column) {
  return copy_of(column == nullptr ? QX_CACHE_NULL : column);
}

// One row, its columns in the order of the missing names.
void parameter_lookup::take_columns(MYSQL_RES *rows) {
  const MYSQL_ROW row = mysql_fetch_row(rows);
  if (row == nullptr) return;
  const size_t columns = std::min<size_t>(missing.size(), mysql_num_fields(rows));
  for (size_t i = 0; i < columns; ++i) values.set(missing[i], value_or_null_marker(row[i]));
}

// Rows of (parameter, value). Parameters are told apart by case, as the names were asked, and a row
// for a name that was not asked in this spelling is passed over. Of a name that was asked twice
// the first slot takes the value; the other one stays as if there were no row.
void parameter_lookup::take_rows(MYSQL_RES *rows) {
  if (mysql_num_fields(rows) < 2) return;
  while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
    if (row[0] == nullptr) continue;
    const auto slot = std::find_if(missing.begin(), missing.end(), [&](size_t candidate) {
      return std::strcmp(names[candidate], row[0]) == 0;
    });
    if (slot != missing.end()) values.set(*slot, value_or_null_marker(row[1]));
  }
}

// Fills every missing slot; false when the database cannot be asked or fails.
bool parameter_lookup::read_database() {
  const std::string list = missing_list();
  const std::string escaped = argument == nullptr ? "" : escape_sql(argument);
  const sql_session session;
  if (!session) {
    log_condition_failed({site.source, site.function, __LINE__});
    return false;
  }
  const char *const first = column_mode || argument == nullptr ? list.c_str() : escaped.c_str();
  const char *const second = column_mode ? escaped.c_str() : list.c_str();
  sql_result rows;
  const int status = argument == nullptr
                         ? sql_query(site, session.get(), rows, sql_format, first)
                         : sql_query(site, session.get(), rows, sql_format, first, second);
  if (status != 0) return false;
  if (!rows) {
    log_condition_failed({site.source, site.function, __LINE__});
    return false;
  }
  if (column_mode) {
    take_columns(rows.get());
  } else {
    take_rows(rows.get());
  }
  for (const size_t slot : missing) {
    if (values[slot] == nullptr) values.set(slot, copy_of(QX_CACHE_NO_ROW));
  }
  return true;
}

void parameter_lookup::write_back() const {
  for (const size_t slot : missing) {
    const cache_binding *const binding = bindings[slot];
    if (binding == nullptr) continue;
    if (const c_string key = key_argument.format(binding->key_format)) {
      rset_hash_str(site, binding->persistent, key.get(), binding->field, values[slot]);
    }
  }
}

char **read_parameters(parameter_lookup &&lookup, int keep_markers) {
  lookup.read_cache();
  if (!lookup.missing.empty()) {
    if (!lookup.read_database()) return nullptr;
    lookup.write_back();
  }
  const size_t count = lookup.count;
  char **const values = lookup.values.release();
  for (size_t i = 0; i < count; ++i) filter_cache_return(&values[i], keep_markers);
  return values;
}

}  // namespace

char **drmget_hash(int binding_count, const cache_binding *bindings, int count,
                   const char *const *names, const char *sql_format, const char *argument,
                   int numeric_arg, int column_mode, int keep_markers) {
  const call_site here = QX_HERE;
  if (binding_count <= 0 || bindings == nullptr || count <= 0 || names == nullptr ||
      has_null(names, count)) {
    return nullptr;
  }
  return no_throw<char **>(nullptr, [&] {
    const auto slots = static_cast<size_t>(count);
    std::vector<const cache_binding *> bound(slots);
    std::transform(names, names + count, bound.begin(),
                   [&](const char *name) { return get_binding(binding_count, bindings, name); });
    return read_parameters({.site = here,
                            .count = slots,
                            .names = names,
                            .sql_format = sql_format,
                            .argument = argument,
                            .key_argument = argument != nullptr && numeric_arg != 0
                                                ? lookup_argument(std::atoi(argument))
                                                : lookup_argument(argument),
                            .column_mode = column_mode != 0,
                            .bindings = std::move(bound),
                            .values = string_array(slots),
                            .missing = {}},
                           keep_markers);
  });
}
