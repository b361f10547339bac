// Text helpers of the base library: trim, split, join, base64.
#include "platform/base/str.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/base/owner.h"
#include "platform/base/text.h"
#include "platform/base/text_array.h"
#include "platform/base/view.h"

char *fr_str_trim(char *text, int mode) {
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

char **fr_explode(const char *text, char separator, size_t *count) {
  if (text == nullptr) return nullptr;
  return no_throw<char **>(nullptr, [=] {
    std::string_view rest(text);
    const auto fields = static_cast<size_t>(std::count(rest.begin(), rest.end(), separator)) + 1;
    text_array list(fields + 1);
    for (size_t i = 0; i < fields; ++i) {
      const size_t length = std::min(rest.find(separator), rest.size());
      list.set(i, copy_text(rest.substr(0, length)));
      rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    if (count != nullptr) *count = fields;
    return list.release();
  });
}

void fr_explode_free(char **fields) {
  // The list was made by fr_explode, or has the same shape: strings, then NULL.
  const text_array freed = text_array::of_list(fields);
}

char *fr_implode(char *const *fields, size_t first, size_t last, char separator) {
  if (fields == nullptr || first > last) return nullptr;
  size_t size = 0;
  for (size_t i = first; i <= last; ++i) {
    if (fields[i] == nullptr) return nullptr;
    size += std::strlen(fields[i]) + 1;
  }
  auto *joined = static_cast<char *>(std::malloc(size));
  if (joined == nullptr) return nullptr;
  char *end = joined;
  for (size_t i = first; i <= last; ++i) {
    end = ::stpcpy(end, fields[i]);
    *end++ = separator;
  }
  // The separator behind the last field becomes the end; `first <= last` makes sure of one field.
  end[-1] = '\0';
  return joined;
}

char *base64_enc_str(const void *data, size_t length) {
  if (data == nullptr) return nullptr;
  // The encoder counts in int; pieces of whole groups of three bytes join without padding.
  constexpr size_t piece = 3 << 20;
  auto *encoded = static_cast<char *>(std::malloc((length + 2) / 3 * 4 + 1));
  if (encoded == nullptr) return nullptr;
  const auto *input = static_cast<const unsigned char *>(data);
  char *output = encoded;
  while (length > 0) {
    const size_t take = std::min(length, piece);
    output +=
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(output), input, static_cast<int>(take));
    input += take;
    length -= take;
  }
  *output = '\0';
  return encoded;
}
