// Text helpers of the base library: trim, split, join, base64.
#ifndef PLATFORM_BASE_STR_H
#define PLATFORM_BASE_STR_H

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/base/owner.h"
#include "platform/base/text_array.h"

// Sides for fr_str_trim; both together are mode 3.
enum { FR_TRIM_START = 1, FR_TRIM_END = 2, FR_TRIM_BOTH = 3 };

// Removes white space (the standard isspace class) in place at the sides of `mode`; returns `text`.
// NULL gives NULL.
char *fr_str_trim(char *text, int mode) noexcept;

// The fields of `text` between its separators; empty fields are kept, so a text without a separator
// has one field. An empty owner for NULL and when memory is short.
text_array fr_explode(const char *text, char separator) noexcept;

// Fields `first` to `last` (both included), joined with `separator`. NULL when `first` is beyond
// `last`, one of them is not there, or memory is short.
c_string fr_implode(const text_array &fields, size_t first, size_t last, char separator) noexcept;

// Standard base64 in one line without a newline, with padding; "" for no bytes. Throws
// std::bad_alloc.
std::string base64(std::string_view data);
// The same for C callers; NULL when memory is short.
c_string base64_enc_str(std::string_view data) noexcept;

#endif
