#include "base/parseconfig.h"

#include <cstdio>
#include <string_view>

#include "base/owner.h"
#include "base/view.h"

namespace {

struct directive {
  std::string_view keyword;
  std::string_view value;
};

// Cuts the next word off `rest`; what remains has no leading white space.
std::string_view next_word(std::string_view &rest) {
  const std::string_view word = rest.substr(0, rest.find_first_of(white_space));
  rest = trimmed(rest.substr(word.size()));
  return word;
}

directive split_line(std::string_view line) {
  std::string_view rest = trimmed(line);
  if (rest.starts_with('#')) return {};
  const std::string_view keyword = next_word(rest);
  std::string_view value = rest;
  if (next_word(rest) == "=") value = rest;
  if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"')) {
    value = value.substr(1, value.size() - 2);
  }
  return {keyword, value};
}

}  // namespace

int parseconfig(const char *path, const struct parseconfig_entry *entries, size_t count) {
  if (path == nullptr || (entries == nullptr && count > 0)) return -1;
  const c_file file(std::fopen(path, "re"));
  if (!file) return -1;
  char *buffer = nullptr;
  size_t capacity = 0;
  ssize_t length = 0;
  while ((length = ::getline(&buffer, &capacity, file.get())) >= 0) {
    const directive found = split_line({buffer, static_cast<size_t>(length)});
    for (size_t i = 0; i < count; ++i) {
      if (found.keyword.empty() || found.keyword != entries[i].keyword) continue;
      safestr_t value = safestr_create(found.value.data(), found.value.size());
      if (value == nullptr) continue;
      safestr_free(*entries[i].value);
      *entries[i].value = value;
    }
  }
  const c_string line_owner(buffer);
  return std::ferror(file.get()) != 0 ? -1 : 0;
}
