// Several named parameters at once, each in its own place in the cache as a binding table says.
#ifndef MAIN_CACHE_PARAMETERS_H
#define MAIN_CACHE_PARAMETERS_H

#include <algorithm>
#include <span>
#include <string_view>

#include "main/cache/read_through.h"
#include "platform/base/view.h"

using binding_table = std::span<const cache_binding>;

// Whether find_binding may search the table: strictly ascending by name, ignoring case. Each
// constant table asserts this where it is defined.
constexpr bool is_sorted_by_name(binding_table table) {
  const auto not_before = [](const cache_binding &left, const cache_binding &right) {
    const std::string_view first = left.name, second = right.name;
    return !std::lexicographical_compare(
        first.begin(), first.end(), second.begin(), second.end(),
        [](char a, char b) { return ascii_lower(a) < ascii_lower(b); });
  };
  return std::adjacent_find(table.begin(), table.end(), not_before) == table.end();
}

// The row of this name, ignoring case, or NULL.
const cache_binding *find_binding(binding_table table, const char *name) noexcept;

// One call of drmget_hash.
// Borrows everything; lives no longer than the call that it describes.
struct parameter_query {
  binding_table bindings;
  std::span<const char *const> names;
  const char *statement;
  const char *argument;          // for the statement, escaped there; NULL: it takes none
  lookup_argument key_argument;  // for the keys
  // True: one row whose columns are the names. False: rows of name and value.
  bool column_mode;
  int keep_markers;
};

// A value per name, null where there is none. An empty owner when the database was needed and
// failed. Throws std::bad_alloc.
text_array read_parameters(const call_site &site, const parameter_query &query);

#endif
