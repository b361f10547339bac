// Reads numbers and words as they were typed.
// In memory only; popt has taken the command line apart before.
#include "report/options.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

#include "platform/base/number.h"
#include "report/command.h"

namespace {

constexpr struct {
  int level;
  const char *name;
} level_names[] = {{LEVEL_RESELLER, "reseller"}, {LEVEL_CLIENT, "client"}, {LEVEL_OWNER, "user"}};

[[noreturn]] void refuse(const char *name, std::string_view text) {
  throw report_trouble(std::string(name) + ": not understood: " + std::string(text));
}

// Hands each word of a list to `take`, which tells whether it knows it.
void take_words(const char *name, std::string_view list,
                const std::function<bool(std::string_view)> &take) {
  for (;;) {
    const size_t comma = std::min(list.find(','), list.size());
    if (!take(list.substr(0, comma))) refuse(name, list.substr(0, comma));
    // An empty word, as behind a comma at the end, is refused like any unknown one.
    if (comma == list.size()) return;
    list.remove_prefix(comma + 1);
  }
}

}  // namespace

report_format typed_format() {
  const auto format = static_cast<report_format>(
      choice_option("--format", typed.format, {"table", "json", "jsonl", "csv", "tsv"}, 0));
  // Refused, not ignored: a script would read "1.5 GB" as a number.
  if (typed.human != 0 && format != report_format::table) {
    throw report_trouble("--human is for tables only");
  }
  return format;
}

std::optional<size_t> typed_top(std::int64_t least) {
  return number_option("--top", typed.top, least, std::numeric_limits<std::uint32_t>::max());
}

std::optional<std::int64_t> number_option(const char *name, const char *text, std::int64_t least,
                                          std::int64_t most) {
  if (text == nullptr) return std::nullopt;
  const auto number = whole_number<std::int64_t>(text);
  if (!number || *number < least || *number > most) refuse(name, text);
  return number;
}

std::optional<double> decimal_option(const char *name, const char *text) {
  if (text == nullptr) return std::nullopt;
  const auto number = whole_number<double>(text);
  if (!number || !std::isfinite(*number) || *number < 0) refuse(name, text);
  return number;
}

size_t choice_option(const char *name, const char *text, std::initializer_list<const char *> words,
                     size_t otherwise) {
  if (text == nullptr) return otherwise;
  const auto *const found = std::find(words.begin(), words.end(), std::string_view(text));
  if (found == words.end()) refuse(name, text);
  return static_cast<size_t>(found - words.begin());
}

kind_set typed_kinds() {
  if (typed.kind == nullptr) return set_of(QUOTA_ALL_KINDS);
  kind_set kinds = 0;
  take_words("--kind", typed.kind, [&](std::string_view word) {
    for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
      if (word == media_kinds[kind].name) return kinds |= set_of(kind), true;
    }
    return false;
  });
  return kinds;
}

std::vector<int> typed_levels() {
  std::vector<int> levels;
  if (typed.level == nullptr) return levels;
  take_words("--level", typed.level, [&](std::string_view word) {
    for (const auto &known : level_names) {
      if (word != known.name && word != std::to_string(known.level)) continue;
      levels.push_back(known.level);
      return true;
    }
    return false;
  });
  return levels;
}

void take_no_words(const std::vector<std::string> &words) {
  if (!words.empty()) throw report_trouble("Not understood: " + words[0]);
}

std::string name_of_level(int level) {
  for (const auto &known : level_names) {
    if (known.level == level) return known.name;
  }
  return std::to_string(level);
}
