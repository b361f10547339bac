// Text helpers of the base library: trim, split, join, base64.
// In memory only; what it hands out comes with its owner.
#include "platform/base/str.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>

#include "platform/base/text.h"
#include "platform/base/view.h"

char *fr_str_trim(char *text, int mode) noexcept {
  if (text == nullptr) return nullptr;
  size_t length = std::strlen(text);
  // The end goes first, so that the move below has fewer bytes to carry.
  if ((mode & FR_TRIM_END) != 0) {
    while (length > 0 && is_space(text[length - 1])) --length;
    text[length] = '\0';
  }
  if ((mode & FR_TRIM_START) != 0) {
    size_t start = 0;
    while (start < length && is_space(text[start])) ++start;
    if (start > 0) std::memmove(text, text + start, length - start + 1);
  }
  return text;
}

text_array fr_explode(const char *text, char separator) noexcept {
  if (text == nullptr) return {};
  return no_throw(text_array(), [=] {
    std::string_view rest(text);
    text_array fields(static_cast<size_t>(std::count(rest.begin(), rest.end(), separator)) + 1);
    for (size_t slot = 0; slot < fields.count(); ++slot) {
      const size_t length = std::min(rest.find(separator), rest.size());
      fields.set(slot, copy_text(rest.substr(0, length)));
      rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return fields;
  });
}

c_string fr_implode(const text_array &fields, size_t first, size_t last, char separator) noexcept {
  if (first > last || last >= fields.count()) return nullptr;
  return no_throw(c_string(), [&] {
    std::string joined(fields[first]);
    for (size_t slot = first + 1; slot <= last; ++slot) joined.append(1, separator) += fields[slot];
    return copy_text(joined);
  });
}

std::string base64(std::string_view data) {
  // The encoder counts in int; pieces of whole groups of three bytes join without padding.
  constexpr size_t piece = 3 << 20;
  // One more, as the encoder ends with a 0.
  std::string encoded((data.size() + 2) / 3 * 4 + 1, '\0');
  char *output = encoded.data();
  while (!data.empty()) {
    const std::string_view taken(data.data(), std::min(data.size(), piece));
    output += EVP_EncodeBlock(reinterpret_cast<unsigned char *>(output),
                              reinterpret_cast<const unsigned char *>(taken.data()),
                              static_cast<int>(taken.size()));
    data.remove_prefix(taken.size());
  }
  encoded.pop_back();
  return encoded;
}

c_string base64_enc_str(std::string_view data) noexcept {
  return no_throw(c_string(), [=] { return copy_text(base64(data)); });
}
