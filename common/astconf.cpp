#include <cctype>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "base/owner.h"
#include "base/view.h"
#include "utils.h"

namespace {

bool is_space(char byte) {
  return std::isspace(static_cast<unsigned char>(byte)) != 0;
}

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
  safestr_free(value);
  value = safestr_create(text.data(), text.size());
}

// Tells section headers from settings and remembers which section the reader is in.
class section_filter {
 public:
  explicit section_filter(const char *section)
      : header_(section == nullptr ? std::string() : std::string("[").append(section).append("]")),
        inside_(section == nullptr) {}

  // Whether settings of this line count. Any line with both brackets is a header, a value with
  // brackets in it included, and a header with text around it still opens its section.
  bool admits(std::string_view line) {
    if (header_.empty()) return true;
    if (line.find('[') != std::string_view::npos && line.find(']') != std::string_view::npos) {
      inside_ = line.find(header_) != std::string_view::npos;
    }
    return inside_;
  }

 private:
  std::string header_;
  bool inside_;
};

void read_section(FILE *file, const char *section, const char *const *keys, safestr_t *values) {
  section_filter filter(section);
  char *buffer = nullptr;
  size_t capacity = 0;
  ssize_t length = 0;
  while ((length = ::getline(&buffer, &capacity, file)) >= 0) {
    const std::string_view line(buffer, static_cast<size_t>(length));
    if (is_ignorable(buffer, '#', 0) != 0 || !filter.admits(line)) continue;
    const std::optional<setting> found = split_setting(line, true);
    if (!found) continue;
    for (size_t i = 0; keys[i] != nullptr; ++i) {
      if (found->key != keys[i]) continue;
      store(values[i], found->value);
      break;
    }
  }
  const c_string owner(buffer);
}

}  // namespace

int get_astconf_section_values(const char *path, const char *section, const char *const *keys,
                               safestr_t *values) {
  const c_file file(std::fopen(path, "re"));
  if (!file) return -1;
  return no_throw(-1, [&] {
    read_section(file.get(), section, keys, values);
    return 0;
  });
}

int get_astconf_values(const char *path, const char *const *keys, safestr_t *values, int count) {
  const c_file file(std::fopen(path, "re"));
  if (!file) return -1;
  for (int i = 0; i < count; ++i) values[i] = nullptr;
  char piece[1024];
  while (std::fgets(piece, sizeof piece, file.get()) != nullptr) {
    const std::optional<setting> found = split_setting(piece, false);
    if (!found) continue;
    for (int i = 0; i < count; ++i) {
      if (found->key != keys[i]) continue;
      store(values[i], found->value);
      break;
    }
  }
  return 0;
}

int is_ignorable(const char *line, char c1, char c2) {
  while (is_space(*line)) ++line;
  if (*line == '\0') return 1;
  if (*line != c1) return 0;
  return c2 == '\0' || line[1] == c2 ? 1 : 0;
}

char *get_start_padding(const char *line, char *dst, size_t dst_len, const char *chars) {
  if (dst_len == 0) return dst;
  size_t length = std::strspn(line, chars == nullptr ? " \t" : chars);
  if (length >= dst_len) length = dst_len - 1;
  std::memcpy(dst, line, length);
  dst[length] = '\0';
  return dst;
}

const char *get_inline_comment(const char *line, char *dst, size_t dst_len, const char *marker) {
  const char *start = std::strstr(line, marker);
  if (start == nullptr) {
    if (dst == nullptr) return "";
    if (dst_len > 0) *dst = '\0';
    return dst;
  }
  if (start != line) {
    // The first byte of the line is never looked at: padding that reaches back to it comes without
    // it, and callers that rebuild lines count on that.
    const char *before = start - 1;
    while (before > line && is_space(*before)) --before;
    start = before + 1;
  }
  if (dst == nullptr) return start;
  return std::strncpy(dst, start, dst_len);
}
