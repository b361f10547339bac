// Reads directive files by table.
// Reads the one file that is named, and keeps nothing.
#include "platform/base/parseconfig.h"

#include "platform/base/line_reader.h"
#include "platform/base/view.h"

namespace {

// Cuts the next word off `rest`; what remains has no leading white space.
std::string_view next_word(std::string_view &rest) {
  const std::string_view word = rest.substr(0, rest.find_first_of(white_space));
  rest = trimmed(rest.substr(word.size()));
  return word;
}

// Every line is compared with every entry: a later line overwrites what an earlier one set.
int read_entries(line_reader &lines, const parseconfig_entry *entries, size_t count) {
  while (const auto line = lines.next()) {
    const parseconfig_line found = split_config_line(*line);
    for (size_t i = 0; i < count; ++i) {
      if (!found.keyword.empty() && found.keyword == entries[i].keyword) {
        *entries[i].value = found.value;
      }
    }
  }
  return lines.failed() ? -1 : 0;
}

}  // namespace

parseconfig_line split_config_line(std::string_view line) {
  std::string_view rest = trimmed(line);
  if (rest.starts_with('#')) return {};
  const std::string_view keyword = next_word(rest);
  // The "=" counts only as a word of its own: "=a" is a value that begins with it.
  std::string_view value = rest;
  if (next_word(rest) == "=") value = rest;
  if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"')) {
    value = value.substr(1, value.size() - 2);
  }
  return {keyword, value};
}

int parseconfig(const char *path, const parseconfig_entry *entries, size_t count) {
  if (path == nullptr || (entries == nullptr && count > 0)) return -1;
  line_reader lines(path);
  if (!lines) return -1;
  return no_throw(-1, [&] { return read_entries(lines, entries, count); });
}
