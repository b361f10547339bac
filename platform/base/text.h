// Heap text for C callers: copies, and printf into text.
#ifndef PLATFORM_BASE_TEXT_H
#define PLATFORM_BASE_TEXT_H

#include <cstdarg>
#include <cstdlib>
#include <string_view>

#include "platform/base/owner.h"

// A copy of the text; throws std::bad_alloc.
c_string copy_text(std::string_view text);

// The formatted text; null on a NULL format or short memory.
c_string format_text(const char *format, ...) noexcept __attribute__((format(printf, 1, 2)));
c_string vformat_text(const char *format, va_list arguments) noexcept
    __attribute__((format(printf, 1, 0)));

// The number at the start of the text as atoi reads it, `otherwise` when there is no text.
inline int number_or(int otherwise, const c_string &text) noexcept {
  return text ? std::atoi(text.get()) : otherwise;
}

// Stores the text through `out`, or frees it when the caller does not want it.
inline void hand_over(c_string text, char **out) noexcept {
  if (out != nullptr) *out = text.release();
}

#endif
