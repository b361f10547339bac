// Case conversion of ASCII letters; every other byte is unchanged, whatever the locale.
// Exported to C; results of the first two are malloc'ed.
#include <cstring>

#include <spoolcap/zarn_str.h>
#include "platform/base/view.h"

namespace {

char upper(char byte) noexcept {
  return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 32) : byte;
}
bool is_letter(char byte) noexcept {
  return ascii_lower(byte) >= 'a' && ascii_lower(byte) <= 'z';
}

template <char (*Convert)(char) noexcept>
char *convert_all(char *str) noexcept {
  if (str == nullptr) return nullptr;
  for (char *at = str; *at != '\0'; ++at) *at = Convert(*at);
  return str;
}

void convert_name(char *str) noexcept {
  const size_t length = std::strlen(str);
  for (size_t i = 0; i < length;) {
    if (i + 2 < length && ascii_lower(str[i]) == 'm' && ascii_lower(str[i + 1]) == 'c') {
      // "Mc" counts as the start of a family name wherever it stands, inside words too.
      str[i] = 'M';
      str[i + 1] = 'c';
      str[i + 2] = upper(str[i + 2]);
      i += 3;
    } else if (i == 0) {
      str[i] = upper(str[i]);
      i += 1;
    } else if (i + 1 < length && !is_letter(str[i])) {
      // What follows anything but a letter begins a word.
      str[i + 1] = upper(str[i + 1]);
      i += 2;
    } else {
      str[i] = ascii_lower(str[i]);
      i += 1;
    }
  }
}

}  // namespace

char *zarn_str_toupper(const char *str) {
  return str == nullptr ? nullptr : convert_all<upper>(::strdup(str));
}

char *zarn_str_tolower(const char *str) {
  return str == nullptr ? nullptr : convert_all<ascii_lower>(::strdup(str));
}

int zarn_str_convert(char *str, int mode) {
  if (str == nullptr) return -1;
  if (mode == ZARN_CASE_UPPER) convert_all<upper>(str);
  if (mode == ZARN_CASE_LOWER) convert_all<ascii_lower>(str);
  if (mode == ZARN_CASE_NAME) convert_name(str);
  return 0;
}
