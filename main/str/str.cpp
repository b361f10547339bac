// Splitting, joining, trimming and changing strings, and padded ids.
// Exported to C: strings are malloc'ed, and the caller's.
#include <spoolcap/zarn_str.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/base/owner.h"
#include "platform/base/text.h"
#include "platform/base/text_array.h"

namespace {

// The same bits as FR_TRIM_START and FR_TRIM_END of the base library.
enum { trim_start = 1, trim_end = 2 };

// Puts a copy of the text in place of the caller's string, which is freed.
void replace_with(char **str, const std::string &text) {
  std::free(std::exchange(*str, copy_text(text).release()));
}

// Without overlaps, as splitting and replacing go through a text.
size_t occurrences(std::string_view text, std::string_view part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

// More than isspace: all low control characters count.
bool is_blank(char byte) noexcept {
  return byte >= 1 && byte <= 32;
}

}  // namespace

char *zarn_str_slice(const char *str, int start, int end) {
  if (str == nullptr) return nullptr;
  const std::string_view text(str);
  const auto from = static_cast<size_t>(std::max(start, 0));
  const size_t to = std::min(text.size(), static_cast<size_t>(std::max(end, 0)));
  if (end < 0 || from > to) return nullptr;
  return no_throw<char *>(nullptr,
                          [=] { return copy_text(text.substr(from, to - from)).release(); });
}

char **zarn_str_split(const char *str, const char *sep) {
  if (str == nullptr || sep == nullptr || *sep == '\0') return nullptr;
  return no_throw<char **>(nullptr, [=] {
    std::string_view rest(str);
    const std::string_view separator(sep);
    // One more than the list gets when the text ends with a separator: no empty last field.
    const size_t most_fields = occurrences(rest, separator) + 1;
    text_array list(most_fields + 1);
    for (size_t field = 0; !rest.empty(); ++field) {
      const size_t length = std::min(rest.find(separator), rest.size());
      list.set(field, copy_text(rest.substr(0, length)));
      rest.remove_prefix(std::min(length + separator.size(), rest.size()));
    }
    return list.release();
  });
}

char **zarn_str_split_char(const char *str, char ch) {
  const char separator[] = {ch, '\0'};
  return zarn_str_split(str, separator);
}

int zarn_str_freelist(char **list) {
  if (list == nullptr) return -1;
  const text_array freed = text_array::of_list(list);
  return 0;
}

// On failure *dst is as it was and still the caller's.
char *zarn_str_append(char **dst, const char *format, ...) {
  if (dst == nullptr || format == nullptr) return nullptr;
  va_list args;
  va_start(args, format);
  c_string text = vformat_text(format, args);
  va_end(args);
  if (!text) return nullptr;
  if (*dst == nullptr) return *dst = text.release();

  const size_t added = std::strlen(text.get()) + 1;
  const size_t length = std::strlen(*dst);
  void *grown = std::realloc(*dst, length + added);
  if (grown == nullptr) return nullptr;
  *dst = static_cast<char *>(grown);
  std::memcpy(*dst + length, text.get(), added);
  return *dst;
}

int zarn_str_replace(char **str, const char *from, const char *to) {
  if (str == nullptr || *str == nullptr || from == nullptr || to == nullptr || *from == '\0') {
    return -1;
  }
  return no_throw(-1, [&] {
    const std::string_view text(*str);
    const std::string_view old_part(from);
    std::string replaced;
    size_t copied = 0;
    for (size_t at = text.find(old_part); at != text.npos; at = text.find(old_part, copied)) {
      replaced.append(text, copied, at - copied).append(to);
      copied = at + old_part.size();
    }
    replaced.append(text, copied);
    replace_with(str, replaced);
    return 0;
  });
}

int zarn_str_trim(char **str, int mode) {
  if (str == nullptr || *str == nullptr) return -1;
  char *text = *str;
  size_t length = std::strlen(text);
  if ((mode & trim_end) != 0) {
    while (length > 0 && is_blank(text[length - 1])) --length;
    text[length] = '\0';
  }
  if ((mode & trim_start) != 0) {
    const auto *start = std::find_if_not(text, text + length, is_blank);
    std::memmove(text, start, static_cast<size_t>(text + length - start) + 1);
  }
  return 0;
}

int zarn_str_delete(char **str, int pos, int count) {
  // -1 in every case: no caller has ever had a result to test, and that stays so.
  if (str == nullptr || *str == nullptr || pos < 0 || count <= 0) return -1;
  const size_t length = std::strlen(*str);
  const auto at = static_cast<size_t>(pos);
  if (at > length) return -1;
  const size_t removed = std::min(static_cast<size_t>(count), length - at);
  std::memmove(*str + at, *str + at + removed, length - at - removed + 1);
  return -1;
}

int zarn_str_insert(char **str, int pos, const char *text) {
  if (str == nullptr || *str == nullptr || text == nullptr || pos < 0) return -1;
  return no_throw(-1, [&] {
    const auto at = static_cast<size_t>(pos);
    std::string whole(*str);
    if (at > whole.size()) return -1;
    replace_with(str, whole.insert(at, text));
    return 0;
  });
}

char *zarn_str_join(char *const *list, const char *sep) {
  if (list == nullptr || *list == nullptr) return nullptr;
  return no_throw<char *>(nullptr, [&] {
    std::string joined(*list);
    while (*++list != nullptr) joined.append(sep == nullptr ? "" : sep).append(*list);
    return copy_text(joined).release();
  });
}

char *ast_pad_id(int id, unsigned width) {
  if (width == 0) return nullptr;
  c_string padded(static_cast<char *>(std::calloc(size_t{width} + 1, 1)));
  if (!padded) return nullptr;
  std::memset(padded.get(), '0', width);
  // An id with more digits than fit keeps its lowest ones: existing paths were made that way.
  for (unsigned place = width; place > 0 && id > 0; id /= 10) {
    padded.get()[--place] = static_cast<char>('0' + id % 10);
  }
  return padded.release();
}

// A byte that begins no character counts as one of its own.
int zarn_utf8_get_char_length(unsigned char byte) {
  if ((byte & 0xe0) == 0xc0) return 2;
  if ((byte & 0xf0) == 0xe0) return 3;
  if ((byte & 0xf8) == 0xf0) return 4;
  return 1;
}
