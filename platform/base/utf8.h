// Text that may hold anything, made fit for what reads it.
#ifndef PLATFORM_BASE_UTF8_H
#define PLATFORM_BASE_UTF8_H

#include <string>
#include <string_view>

// The text with U+FFFD in the place of each byte that is not part of valid UTF-8, and of NUL.
std::string valid_utf8(std::string_view text);

// Valid UTF-8 with "?" for each control character.
std::string without_controls(std::string text);

// The character that the text, which is not empty, begins with; `length` takes its bytes. NUL and a
// byte that is not part of valid UTF-8 are each the character 0.
char32_t first_character(std::string_view text, size_t &length);

#endif
