// Decodes UTF-8 strictly: no overlong forms, no surrogates, nothing above U+10FFFF.
// In memory only, and the same in every locale.
#include "platform/base/utf8.h"

#include <algorithm>

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";

// Bytes of the character that a text begins with; 0 when it begins with none.
size_t character_length(std::string_view text) {
  const auto byte = [&](size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const auto continues = [&](size_t i) { return (byte(i) & 0xc0U) == 0x80U; };
  const unsigned lead = byte(0);
  if (lead == 0) return 0;
  if (lead < 0x80) return 1;
  // 0xc0 and 0xc1 could only begin overlong forms.
  if (lead >= 0xc2 && lead <= 0xdf) return continues(1) ? 2 : 0;
  if (lead >= 0xe0 && lead <= 0xef) {
    if (!continues(1) || !continues(2)) return 0;
    // Below 0xe0 0xa0 is overlong; above 0xed 0x9f are the surrogates.
    return (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xed && byte(1) > 0x9f) ? 0 : 3;
  }
  if (lead >= 0xf0 && lead <= 0xf4) {
    if (!continues(1) || !continues(2) || !continues(3)) return 0;
    // Below 0xf0 0x90 is overlong; 0xf4 0x8f begins the last characters, up to U+10FFFF.
    return (lead == 0xf0 && byte(1) < 0x90) || (lead == 0xf4 && byte(1) > 0x8f) ? 0 : 4;
  }
  return 0;
}

}  // namespace

std::string valid_utf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    const size_t length = character_length(text);
    valid += length == 0 ? replacement : text.substr(0, length);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return valid;
}

char32_t first_character(std::string_view text, size_t &length) {
  const size_t valid = character_length(text);
  length = std::max<size_t>(valid, 1);
  // By length: the bits of the first byte that belong to the character.
  static constexpr unsigned lead_bits[] = {0, 0x7f, 0x1f, 0x0f, 0x07};
  char32_t character = static_cast<unsigned char>(text[0]) & lead_bits[valid];
  for (size_t i = 1; i < length; ++i) {
    character = (character << 6U) | (static_cast<unsigned char>(text[i]) & 0x3fU);
  }
  return character;
}

std::string without_controls(std::string text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x20 || byte == 0x7f) text[at] = '?';
    // U+0080 to U+009F.
    const bool is_high =
        byte == 0xc2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xa0;
    if (is_high) text.replace(at, 2, "?");
  }
  return text;
}
