#include <spoolcap/zarn_cache.h>

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "main/cache/client.h"
#include "main/cache/read_through.h"
#include "platform/velkan/velkan.h"

namespace {

char *joined_values(const call_site &site, int persistent, const char *key) {
  string_array values;
  const int status = cache_hgetall_values(site, persistent, key, values);
  if (status != VK_OK) {
    CACHE_LOG(site, "rgetall_hash_comma(%s): error %s", key, vk_strerror(status));
    return nullptr;
  }
  CACHE_LOG(site, "rgetall_hash_comma(%s): %d memberss", key, static_cast<int>(values.count()));
  std::string joined;
  for (size_t i = 0; i < values.count(); ++i) joined.append(i == 0 ? "" : ",").append(values[i]);
  return values.count() == 0 ? nullptr : copy_of(joined.c_str()).release();
}

// The lookup that drget_hash makes of its arguments: whatever the database says is cached, a
// failed statement as an absent row too, so that a database in trouble is not asked for the same
// value again and again.
char *read_one(const call_site &site, int persistent, const char *field, const char *sql_format,
               const char *key_format, const lookup_argument &argument, int keep_markers) {
  const field_lookup lookup = {.key_format = key_format,
                               .field = field,
                               .persistent = persistent,
                               .statement = sql_format,
                               .value_of = column_or_marker,
                               .keep_markers = keep_markers};
  return read_through(site, lookup, argument, nullptr).value.release();
}

}  // namespace

void ast_cache_rdlock(void) {}
void ast_cache_wrlock(void) {}
void ast_cache_unlock(void) {}

char *rgetall_hash_comma(int persistent, const char *key_format, ...) {
  va_list arguments;
  va_start(arguments, key_format);
  const c_string key = format_cache_key(key_format, arguments);
  va_end(arguments);
  const call_site here = QX_HERE;
  if (!key) return nullptr;
  return no_throw<char *>(nullptr, [&] { return joined_values(here, persistent, key.get()); });
}

char **rmget_hash(int persistent, int count, const char *const *fields, const char *key_format,
                  ...) {
  va_list arguments;
  va_start(arguments, key_format);
  const c_string key = format_cache_key(key_format, arguments);
  va_end(arguments);
  const call_site here = QX_HERE;
  if (count <= 0 || fields == nullptr || !key || has_null(fields, count)) return nullptr;
  return no_throw<char **>(nullptr, [&] {
    return rmget_hash_key(here, persistent, key.get(), fields, static_cast<size_t>(count))
        .release();
  });
}

void rget_free_vals(int count, char **values) {
  if (values == nullptr) return;
  for (int i = 0; i < count; ++i) std::free(values[i]);
  std::free(values);
}

int rmset_hash(int persistent, int count, const char *const *fields, const char *const *values,
               const char *key_format, ...) {
  va_list arguments;
  va_start(arguments, key_format);
  const c_string key = format_cache_key(key_format, arguments);
  va_end(arguments);
  const call_site here = QX_HERE;
  if (count < 0 || fields == nullptr || values == nullptr || !key || has_null(fields, count) ||
      has_null(values, count)) {
    return -1;
  }
  if (count == 0) return 0;
  return no_throw(-1, [&] {
    const int status =
        cache_hmset(here, persistent, key.get(), fields, values, static_cast<size_t>(count));
    if (status != VK_OK) {
      CACHE_LOG(here, "rmset_hash(%s,X%d): error %s", key.get(), count, vk_strerror(status));
    } else {
      CACHE_LOG(here, "rmset_hash(%s,X%d): success", key.get(), count);
    }
    return 0;  // a lost write shows in the diagnostics only: the cache is never a condition
  });
}

int compare_entries(const void *left, const void *right) {
  return strcasecmp(static_cast<const cache_binding *>(left)->name,
                    static_cast<const cache_binding *>(right)->name);
}

const cache_binding *get_binding(int row_count, const cache_binding *table, const char *name) {
  if (row_count <= 0 || table == nullptr || name == nullptr) return nullptr;
  const cache_binding wanted = {name, nullptr, 0, nullptr};
  return static_cast<const cache_binding *>(std::bsearch(
      &wanted, table, static_cast<size_t>(row_count), sizeof(cache_binding), compare_entries));
}

char *drget_hash(int persistent, const char *field, const char *sql_format, const char *key_format,
                 const char *argument, int keep_markers) {
  const call_site here = QX_HERE;
  if (argument == nullptr) {
    log_condition_failed(QX_HERE);
    return nullptr;
  }
  return read_one(here, persistent, field, sql_format, key_format, lookup_argument(argument),
                  keep_markers);
}

char *drget_hash_by_id(int persistent, const char *field, const char *sql_format,
                       const char *key_format, int id, int keep_markers) {
  const call_site here = QX_HERE;
  if (id <= 0) {
    log_condition_failed(QX_HERE);
    return nullptr;
  }
  return read_one(here, persistent, field, sql_format, key_format, lookup_argument(id),
                  keep_markers);
}

int check_add_norows_to_missing_persistent(const char *key, int persistent, const char *value) {
  return norows_forbidden(QX_HERE, key, persistent, value) ? 1 : 0;
}

void filter_cache_return(char **value, int keep_markers) {
  if (value == nullptr || *value == nullptr) return;
  const bool hidden =
      (std::strcmp(*value, QX_CACHE_NULL) == 0 && (keep_markers & QX_KEEP_NULL) == 0) ||
      (std::strcmp(*value, QX_CACHE_NO_ROW) == 0 && (keep_markers & QX_KEEP_NO_ROW) == 0);
  if (!hidden) return;
  std::free(*value);
  *value = nullptr;
}
