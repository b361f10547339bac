// Looking at text without copying it.
#ifndef PLATFORM_BASE_VIEW_H
#define PLATFORM_BASE_VIEW_H

#include <string_view>

// C callers hand in NULL for "no text"; both count as none.
inline bool is_empty(const char *text) noexcept {
  return text == nullptr || *text == '\0';
}

// An ASCII letter in lower case; every other byte unchanged, whatever the locale.
constexpr char ascii_lower(char byte) noexcept {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

// The standard isspace class.
inline constexpr std::string_view white_space = " \t\n\v\f\r";

constexpr bool is_space(char byte) noexcept {
  return white_space.find(byte) != std::string_view::npos;
}

// `text` without white space at both ends. Never a null view, even when nothing is left.
inline std::string_view trimmed(std::string_view text) {
  const size_t start = text.find_first_not_of(white_space);
  if (start == std::string_view::npos) return text.substr(text.size());
  return text.substr(start, text.find_last_not_of(white_space) - start + 1);
}

#endif
