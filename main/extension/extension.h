// What the extension lookups share. Internal to main/.
#ifndef MAIN_EXTENSION_EXTENSION_H
#define MAIN_EXTENSION_EXTENSION_H

#include <cstdlib>

#include "main/cache/read_through.h"

// The hashes that have an extension's full number in their keys.
inline constexpr char extension_info_key[] = "res:inf:ext:%s";
inline constexpr char extension_prefs_key[] = "res:po:ext:%s";

// Whether the caller gave what a lookup cannot do without; logged when not.
inline bool is_given(const call_site &site, const char *argument) {
  if (argument == nullptr) log_condition_failed(site);
  return argument != nullptr;
}

// The lookup of one extension by its full number.
inline field_answer read_extension(const call_site &site, const field_lookup &lookup,
                                   const char *full_number, SessionHandle session = nullptr,
                                   const row_reader &also = {}) {
  if (!is_given(site, full_number)) return {nullptr, answer_source::nowhere};
  return read_through(site, lookup, lookup_argument(full_number), session, also);
}

inline int number_or(int otherwise, const c_string &text) {
  return text ? std::atoi(text.get()) : otherwise;
}

#endif
