// The C face of the cache layer: each function checks its arguments and formats its key.
// The work is done in client.cpp, read_through.cpp and parameters.cpp.
#include <spoolcap/zarn_cache.h>

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "main/cache/client.h"
#include "main/cache/parameters.h"
#include "main/cache/read_through.h"
#include "platform/base/text.h"

namespace {

bool has_null(const char *const *texts, int count) noexcept {
  return std::find(texts, texts + count, nullptr) != texts + count;
}

// A hash without values gives NULL, like a failure: callers tell neither from the other.
char *joined_values(const call_site &site, int persistent, const char *key) {
  text_array values;
  const cache_outcome outcome = cache_hgetall_values(site, persistent, key, values);
  if (!outcome) {
    CACHE_LOG(site, "rgetall_hash_comma(%s): error %s", key, outcome.error);
    return nullptr;
  }
  CACHE_LOG(site, "rgetall_hash_comma(%s): %d memberss", key, static_cast<int>(values.count()));
  std::string joined;
  for (size_t i = 0; i < values.count(); ++i) joined.append(i == 0 ? "" : ",").append(values[i]);
  return values.count() == 0 ? nullptr : copy_text(joined).release();
}

// The lookup of drget_hash. It caches a failed statement as an absent row, so that a database in
// trouble is not asked for the same value again and again.
char *read_one(const call_site &site, int persistent, const char *field, const char *sql_format,
               const char *key_format, const lookup_argument &argument, int keep_markers) noexcept {
  const field_lookup lookup = {.key_format = key_format,
                               .field = field,
                               .persistent = persistent,
                               .statement = sql_format,
                               .value_of = column_or_marker,
                               .keep_markers = keep_markers};
  return read_through(site, lookup, argument, nullptr).value.release();
}

}  // namespace

char *rgetall_hash_comma(int persistent, const char *key_format, ...) {
  va_list arguments;
  va_start(arguments, key_format);
  const c_string key = vformat_text(key_format, arguments);
  va_end(arguments);
  // Taken before the lambda, where __func__ would be the lambda's own.
  const call_site here = QX_HERE;
  if (!key) return nullptr;
  return no_throw<char *>(nullptr, [&] { return joined_values(here, persistent, key.get()); });
}

char **rmget_hash(int persistent, int count, const char *const *fields, const char *key_format,
                  ...) {
  va_list arguments;
  va_start(arguments, key_format);
  const c_string key = vformat_text(key_format, arguments);
  va_end(arguments);
  const call_site here = QX_HERE;
  if (count <= 0 || fields == nullptr || !key || has_null(fields, count)) return nullptr;
  return no_throw<char **>(nullptr, [&] {
    return rmget_hash_key(here, persistent, key.get(), fields, static_cast<size_t>(count))
        .release();
  });
}

// A negative count frees the array and none of its strings.
void rget_free_vals(int count, char **values) {
  const text_array freed(values, static_cast<size_t>(std::max(count, 0)));
}

int rmset_hash(int persistent, int count, const char *const *fields, const char *const *values,
               const char *key_format, ...) {
  va_list arguments;
  va_start(arguments, key_format);
  const c_string key = vformat_text(key_format, arguments);
  va_end(arguments);
  const call_site here = QX_HERE;
  if (count < 0 || fields == nullptr || values == nullptr || !key || has_null(fields, count) ||
      has_null(values, count)) {
    return -1;
  }
  // The server refuses a command without fields; nothing to write is a success here.
  if (count == 0) return 0;
  return no_throw(-1, [&] {
    const cache_outcome outcome =
        cache_hmset(here, persistent, key.get(), fields, values, static_cast<size_t>(count));
    if (!outcome) {
      CACHE_LOG(here, "rmset_hash(%s,X%d): error %s", key.get(), count, outcome.error);
    } else {
      CACHE_LOG(here, "rmset_hash(%s,X%d): success", key.get(), count);
    }
    return 0;  // a lost write shows in the diagnostics only
  });
}

// For callers that sort or search their own tables with the C library.
int compare_entries(const void *left, const void *right) {
  return ::strcasecmp(static_cast<const cache_binding *>(left)->name,
                      static_cast<const cache_binding *>(right)->name);
}

const cache_binding *get_binding(int row_count, const cache_binding *table, const char *name) {
  if (row_count <= 0 || table == nullptr || name == nullptr) return nullptr;
  return find_binding({table, static_cast<size_t>(row_count)}, name);
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

char **drmget_hash(int binding_count, const cache_binding *bindings, int count,
                   const char *const *names, const char *sql_format, const char *argument,
                   int numeric_arg, int column_mode, int keep_markers) {
  const call_site here = QX_HERE;
  if (binding_count <= 0 || bindings == nullptr || count <= 0 || names == nullptr ||
      has_null(names, count)) {
    return nullptr;
  }
  // The statement always takes the argument as text; only the keys of the cache need a number.
  const bool is_number = argument != nullptr && numeric_arg != 0;
  const parameter_query query = {
      .bindings = {bindings, static_cast<size_t>(binding_count)},
      .names = {names, static_cast<size_t>(count)},
      .statement = sql_format,
      .argument = argument,
      .key_argument = is_number ? lookup_argument(std::atoi(argument)) : lookup_argument(argument),
      .column_mode = column_mode != 0,
      .keep_markers = keep_markers};
  return no_throw<char **>(nullptr, [&] { return read_parameters(here, query).release(); });
}

int check_add_norows_to_missing_persistent(const char *key, int persistent, const char *value) {
  return norows_forbidden(QX_HERE, key, persistent, value) ? 1 : 0;
}

void filter_cache_return(char **value, int keep_markers) {
  if (value == nullptr) return;
  c_string filtered(*value);
  hide_marker(filtered, keep_markers);
  *value = filtered.release();
}
