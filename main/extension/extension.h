// What the extension lookups share.
#ifndef MAIN_EXTENSION_EXTENSION_H
#define MAIN_EXTENSION_EXTENSION_H

#include "main/cache/keys.h"
#include "main/cache/read_through.h"

// Whether the caller gave what a lookup cannot do without; logged when not.
inline bool is_given(const call_site &site, const char *argument) noexcept {
  if (argument == nullptr) log_condition_failed(site);
  return argument != nullptr;
}

// The lookup of one extension by its full number.
inline field_answer read_extension(const call_site &site, const field_lookup &lookup,
                                   const char *full_number, SessionHandle session = nullptr,
                                   const row_reader &also = {}) noexcept {
  if (!is_given(site, full_number)) return {nullptr, answer_source::nowhere};
  return read_through(site, lookup, lookup_argument(full_number), session, also);
}

#endif
