// Asterisk's configuration: both readers against a plain model, and the helpers of a line's layout.
#include <spoolcap/utils.h>
#include "fuzz/fuzz.h"
#include "platform/base/view.h"

namespace {

const char *const keys[] = {"astspooldir", nullptr};

// The value of the key; `has_sections` has the rules of the reader that knows sections.
fuzz::optional_text expected(const std::vector<std::string> &lines, bool has_sections,
                             const std::string &section) {
  fuzz::optional_text value;
  bool inside = section.empty();
  for (const std::string &whole : lines) {
    const std::string line(trimmed(whole));
    if (has_sections && line.starts_with('#')) continue;
    const bool has_brackets =
        line.find('[') != std::string::npos && line.find(']') != std::string::npos;
    if (!section.empty() && has_brackets) {
      inside = line.find("[" + section + "]") != std::string::npos;
    }
    const bool is_arrow = !has_sections || line.find("=>") != std::string::npos;
    const size_t end = line.find(is_arrow ? "=>" : "=");
    if (!inside || end == std::string::npos) continue;
    const std::string text = line.substr(end + (is_arrow ? 2 : 1));
    if (!text.empty() && trimmed(line.substr(0, end)) == keys[0]) value = trimmed(text);
  }
  return value;
}

fuzz::optional_text owned(safestr_t value) {
  const safestr_owner owner(value);
  return value == nullptr ? std::nullopt : fuzz::optional_text({value, safestr_length(value)});
}

fuzz::optional_text in_section(const fuzz::memory_file &file, const char *section) {
  safestr_t value = nullptr;
  REQUIRE(get_astconf_section_values(file.path().c_str(), section, keys, &value) == 0);
  return owned(value);
}

void check_layout(const std::string &line, size_t room) {
  const std::unique_ptr<char[]> place(new char[room]);
  REQUIRE(get_start_padding(line.c_str(), place.get(), room, nullptr) == place.get());
  const size_t padding = std::min({line.find_first_not_of(" \t"), line.size(), room - 1});
  REQUIRE(line.substr(0, padding) == place.get());

  const std::string comment = get_inline_comment(line.c_str(), nullptr, 0, ";");
  REQUIRE(line.ends_with(comment) && trimmed(comment).find(';') == (comment.empty() ? -1UL : 0));
  // Only a comment that is the whole line begins at its first byte.
  const size_t start = line.size() - comment.size();
  REQUIRE((start == 0) == line.starts_with(';') || line.empty());
  REQUIRE(start <= 1 || start == line.size() || !is_space(line[start - 1]));
  get_inline_comment(line.c_str(), place.get(), room, ";");
  REQUIRE(comment.substr(0, room) == std::string(place.get(), strnlen(place.get(), room)));
}

}  // namespace

void check(std::string_view bytes) {
  static const fuzz::memory_file file;
  file.assign(bytes);
  in_section(file, "directories");
  safestr_t value = nullptr;
  REQUIRE(get_astconf_values(file.path().c_str(), keys, &value, 1) == 0);
  REQUIRE(owned(value) == expected(fuzz::lines_of(bytes, 1024), false, ""));

  const std::string text = std::string(bytes).c_str();  // what a NUL in a line means is open
  file.assign(text);
  for (const char *section : {"directories", static_cast<const char *>(nullptr)}) {
    REQUIRE(in_section(file, section) ==
            expected(fuzz::lines_of(text), true, section == nullptr ? "" : section));
  }
  check_layout(text, 3);
  check_layout(text, text.size() + 1);
}
