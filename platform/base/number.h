// Numbers out of text that must be nothing else.
#ifndef PLATFORM_BASE_NUMBER_H
#define PLATFORM_BASE_NUMBER_H

#include <charconv>
#include <optional>
#include <string_view>

// The number that the whole text is, in decimal. Nothing for a sign "+", for blanks, and for what
// the type cannot hold.
template <class Number>
std::optional<Number> whole_number(std::string_view text) {
  Number number = 0;
  const char *const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

#endif
