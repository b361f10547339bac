// Makes all cells of a line, first to find the widths and then to print.
// Writes to the stream that it is given.
#include "report/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <clocale>
#include <cwchar>

#include "platform/base/utf8.h"
#include "report/options.h"
#include "report/output.h"

namespace {

constexpr std::string_view unknown = "-";

// Controls, soft hyphen, marks of direction, invisible characters, tags.
bool disturbs_terminal(char32_t character) {
  return std::any_of(std::begin(disturbing), std::end(disturbing),
                     [&](const character_range &range) {
                       return character >= range.first && character <= range.last;
                     });
}

// Columns of a terminal that a text takes.
size_t width_of(std::string_view text) {
  size_t width = 0;
  for (size_t length = 0; !text.empty(); text.remove_prefix(length)) {
    const int columns = ::wcwidth(static_cast<wchar_t>(first_character(text, length)));
    // A character whose width is not known is counted as one column.
    width += columns < 0 ? 1 : static_cast<size_t>(columns);
  }
  return width;
}

using cells = std::vector<std::string>;

class table {
 public:
  table(const report_platform &platform, const table_style &style)
      : platform_(platform), style_(style) {}

  // In the order of `line_of`.
  std::vector<std::pair<std::string, bool>> heads() const {
    std::vector<std::pair<std::string, bool>> heads = {
        {"login", true}, {"id", false}, {"level", true}};
    for_each_of(style_.kinds,
                [&](unsigned kind) { heads.emplace_back(media_kinds[kind].name, false); });
    for (const char *name : {"total", "limit"}) heads.emplace_back(name, false);
    heads.emplace_back("of", true);
    for (const char *name : {"percent", "age"}) heads.emplace_back(name, false);
    heads.emplace_back("state", true);
    return heads;
  }

  cells line_of(const chosen_account &chosen) const {
    const report_account &account = platform_.accounts[chosen.place];
    const std::optional<unsigned> limited = limited_kind(account);
    cells line = {
        std::string(style_.indent ? 2 * chosen.depth : 0, ' ') + shown_login(account.login),
        std::to_string(account.id), name_of_level(account.level)};
    for_each_of(style_.kinds, [&](unsigned kind) { line.push_back(size(account.used[kind])); });
    line.push_back(size(total_of(account, style_.kinds)));
    line.push_back(size(limited ? account.limit[*limited] : -1));
    line.emplace_back(limited ? media_kinds[*limited].name : unknown);
    const auto percent = limited ? percent_of_kind(account, *limited) : std::nullopt;
    line.push_back(percent ? percent_text(percent) + "%" : std::string(unknown));
    line.push_back(age_text(age_of(account, platform_.taken, style_.kinds), style_.human));
    line.push_back(state(account));
    return line;
  }

 private:
  // The fullest kind; the first one with a limit where none of those has a figure.
  std::optional<unsigned> limited_kind(const report_account &account) const {
    std::optional<unsigned> limited = fullest_kind(account, style_.kinds);
    for_each_of(style_.kinds, [&](unsigned kind) {
      if (!limited && account.limit[kind] >= 0) limited = kind;
    });
    return limited;
  }

  std::string size(std::int64_t bytes) const { return size_text(bytes, style_.human); }

  // With the updates of all kinds.
  std::string state(const report_account &account) const {
    const figure_state worst = state_of(account, style_.kinds);
    if (worst != figure_state::updated) return name_of(worst);
    std::int64_t updates = 0;
    for_each_of(style_.kinds,
                [&](unsigned kind) { updates += std::max(account.updates[kind], 0); });
    return fmt::format("{} ({})", name_of(worst), updates);
  }

  const report_platform &platform_;
  const table_style &style_;
};

}  // namespace

table_columns::table_columns(const std::vector<std::pair<std::string, bool>> &heads) {
  // For the widths of characters; where this locale is not known, each takes one column.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  for (const auto &[head, is_text] : heads) columns_.push_back({head, is_text, head.size()});
}

void table_columns::measure(const std::vector<std::string> &line) {
  for (size_t i = 0; i < line.size(); ++i) {
    columns_[i].width = std::max(columns_[i].width, width_of(line[i]));
  }
}

void table_columns::print_head(FILE *stream) const {
  std::vector<std::string> line;
  for (const column &one : columns_) line.push_back(one.head);
  print(stream, line);
}

void table_columns::print(FILE *stream, const std::vector<std::string> &line) const {
  std::string text;
  for (size_t i = 0; i < line.size(); ++i) {
    const std::string padding(columns_[i].width - width_of(line[i]), ' ');
    if (i != 0) text += "  ";
    text += columns_[i].is_text ? line[i] + padding : padding + line[i];
  }
  // No blanks at the end: they would wrap a line that just fits.
  text.erase(text.find_last_not_of(' ') + 1);
  text += '\n';
  write_text(stream, text);
}

void write_table(FILE *stream, const report_platform &platform,
                 std::span<const chosen_account> accounts, const table_style &style) {
  const table lines(platform, style);
  table_columns columns(lines.heads());
  for (const chosen_account &account : accounts) columns.measure(lines.line_of(account));
  columns.print_head(stream);
  for (const chosen_account &account : accounts) columns.print(stream, lines.line_of(account));
}

std::string human_size(std::int64_t bytes) {
  static constexpr const char *units[] = {"B", "KB", "MB", "GB", "TB", "PB", "EB"};
  auto scaled = static_cast<double>(bytes);
  size_t unit = 0;
  // 64 bits end within EB, so the list of units is long enough.
  for (; scaled >= 1024; ++unit) scaled /= 1024;
  return fmt::format("{:.{}f} {}", scaled, unit == 0 ? 0 : 2, units[unit]);
}

std::string human_time(std::int64_t seconds) {
  constexpr struct {
    std::int64_t seconds;
    const char *name;
  } units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
  // Two of a unit at least, so that little is lost.
  const auto *const unit =
      std::find_if(std::begin(units), std::end(units) - 1,
                   [&](const auto &one) { return seconds >= 2 * one.seconds; });
  return fmt::format("{} {}", seconds / unit->seconds, unit->name);
}

std::string number_text(std::int64_t number) {
  return number < 0 ? std::string(unknown) : std::to_string(number);
}

std::string size_text(std::int64_t bytes, bool human) {
  return human && bytes >= 0 ? human_size(bytes) : number_text(bytes);
}

std::string age_text(std::int64_t seconds, bool human) {
  return human && seconds >= 0 ? human_time(seconds) : number_text(seconds);
}

std::string shown_login(std::string_view login) {
  if (login.data() == nullptr) return std::string(unknown);
  std::string shown;
  for (size_t length = 0; !login.empty(); login.remove_prefix(length)) {
    const bool is_escaped = disturbs_terminal(first_character(login, length));
    const std::string_view character = login.substr(0, length);
    if (!is_escaped) shown += character;
    if (!is_escaped) continue;
    // Byte by byte, as the login is in the database.
    for (const char byte : character) {
      shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
  }
  return shown;
}
