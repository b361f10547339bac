// Names of files and members may be any bytes; what people and programs read must not be.
#ifndef TRANSFER_UTF8_H
#define TRANSFER_UTF8_H

#include <string>
#include <string_view>

// The text with U+FFFD for each byte that belongs to no valid UTF-8 sequence.
std::string valid_utf8(std::string_view text);

// Valid UTF-8 with "?" for each control character.
std::string without_controls(std::string text);

#endif
