// Reads values of Asterisk's configuration files.
// Opens only the named file; skips other lines and sections.
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <spoolcap/utils.h>
#include "platform/base/line_reader.h"
#include "platform/base/owner.h"
#include "platform/base/view.h"

namespace {

// Borrowed from the line that it was split from.
struct setting {
  std::string_view key;
  std::string_view value;
};

// Splits a line at its first "=>", or at its first "=" where that is allowed to stand in. Nothing
// comes of a line without a separator or without a value.
std::optional<setting> split_setting(std::string_view line, bool single_equals) {
  line = trimmed(line);
  size_t width = 2;
  size_t separator = line.find("=>");
  if (separator == std::string_view::npos && single_equals) {
    width = 1;
    separator = line.find('=');
  }
  if (separator == std::string_view::npos || separator + width >= line.size()) return {};
  return setting{trimmed(line.substr(0, separator)), trimmed(line.substr(separator + width))};
}

// A key that stands in the file again overrides what was found before.
void store(safestr_t &value, std::string_view text) {
  safestr_t copy = safestr_create(text.data(), text.size());
  if (copy == nullptr) throw std::bad_alloc();
  safestr_free(value);
  value = copy;
}

// Any line with both brackets, a value with brackets in it included.
bool is_header(std::string_view line) {
  return line.find('[') != std::string_view::npos && line.find(']') != std::string_view::npos;
}

void read_section(line_reader &lines, const char *section, const char *const *keys,
                  safestr_t *values) {
  // Without a section the whole file counts, headers and all.
  const std::string header = section == nullptr ? "" : "[" + std::string(section) + "]";
  bool inside = section == nullptr;
  while (const auto line = lines.next()) {
    if (is_ignorable(line->data(), '#', 0) != 0) continue;
    // A header with text around it still opens its section.
    if (section != nullptr && is_header(*line)) {
      inside = line->find(header) != std::string_view::npos;
    }
    if (!inside) continue;
    const std::optional<setting> found = split_setting(*line, true);
    if (!found) continue;
    for (size_t i = 0; keys[i] != nullptr; ++i) {
      if (found->key != keys[i]) continue;
      store(values[i], found->value);
      break;
    }
  }
}

// Lines longer than a piece are split as if they were several, and only "=>" separates. Both are
// how callers know this reader.
void read_pieces(FILE *file, const char *const *keys, safestr_t *values, int count) {
  char piece[1024];
  while (std::fgets(piece, sizeof piece, file) != nullptr) {
    const std::optional<setting> found = split_setting(piece, false);
    if (!found) continue;
    for (int i = 0; i < count; ++i) {
      if (found->key != keys[i]) continue;
      store(values[i], found->value);
      break;
    }
  }
}

}  // namespace

int get_astconf_section_values(const char *path, const char *section, const char *const *keys,
                               safestr_t *values) {
  if (path == nullptr || keys == nullptr || values == nullptr) return -1;
  line_reader lines(path);
  if (!lines) return -1;
  return no_throw(-1, [&] {
    read_section(lines, section, keys, values);
    return 0;
  });
}

int get_astconf_values(const char *path, const char *const *keys, safestr_t *values, int count) {
  if (path == nullptr || keys == nullptr || values == nullptr) return -1;
  const c_file file(std::fopen(path, "re"));
  if (!file) return -1;
  // Unlike the reader by section, this one clears what the caller has in the slots.
  for (int i = 0; i < count; ++i) values[i] = nullptr;
  return no_throw(-1, [&] {
    read_pieces(file.get(), keys, values, count);
    return 0;
  });
}

int is_ignorable(const char *line, char c1, char c2) {
  if (line == nullptr) return 1;
  while (is_space(*line)) ++line;
  if (*line == '\0') return 1;
  if (*line != c1) return 0;
  return c2 == '\0' || line[1] == c2 ? 1 : 0;
}

char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars) {
  if (dst == nullptr || dst_len == 0) return dst;
  size_t length = line == nullptr ? 0 : std::strspn(line, chars == nullptr ? " \t" : chars);
  if (length >= dst_len) length = dst_len - 1;
  if (length > 0) std::memcpy(dst, line, length);
  dst[length] = '\0';
  return dst;
}

const char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker) {
  const char *start = line == nullptr || marker == nullptr ? nullptr : std::strstr(line, marker);
  if (start == nullptr) {
    if (dst == nullptr) return "";
    if (dst_len > 0) *dst = '\0';
    return dst;
  }
  if (start != line) {
    // The first byte of the line is never looked at: padding that reaches back to it comes without
    // it.
    const char *before = start - 1;
    while (before > line && is_space(*before)) --before;
    start = before + 1;
  }
  if (dst == nullptr) return start;
  return std::strncpy(dst, start, dst_len);
}
