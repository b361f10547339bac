// Writes values with their separators; numbers need no quoting.
// Writes to the stream that it is given, a line at a time.
#include "report/separated.h"

#include <algorithm>
#include <iterator>

#include "report/output.h"

namespace {

// A spreadsheet runs a cell that begins so, and does not show an apostrophe in front.
std::string guarded(std::string_view text) {
  // The last four are the wide forms of the first.
  static constexpr std::string_view risky[] = {"=",  "+",  "-",      "@",      "'",      "\t",
                                               "\r", "\n", "\uff1d", "\uff0b", "\uff0d", "\uff20"};
  const bool is_risky = std::any_of(std::begin(risky), std::end(risky),
                                    [&](std::string_view one) { return text.starts_with(one); });
  return (is_risky ? "'" : "") + std::string(text);
}

std::string csv_text(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == text.npos) return std::string(text);
  std::string quoted = "\"";
  for (const char byte : text) {
    if (byte == '"') quoted += '"';
    quoted += byte;
  }
  return quoted + '"';
}

std::string tsv_text(std::string_view text) {
  static constexpr std::string_view special = "\\\t\n\r";
  static constexpr std::string_view letters = "\\tnr";
  std::string escaped;
  for (const char byte : text) {
    const size_t place = special.find(byte);
    if (place != special.npos) escaped += '\\';
    escaped += place == special.npos ? byte : letters[place];
  }
  return escaped;
}

void write_head(separated_line &line, kind_set kinds) {
  const auto add_kinds = [&](const std::string &name) {
    for_each_of(kinds, [&](unsigned kind) { line.add(name + "_" + media_kinds[kind].name); });
  };
  // docs/report.md has these names in this order.
  for (const char *name : {"id", "parent", "level", "name"}) line.add(name);
  add_kinds("used");
  add_kinds("limit");
  for (const char *name : {"total", "percent", "state"}) line.add(name);
  add_kinds("state");
  add_kinds("updates");
  line.add("age");
  line.end();
}

void write_values(separated_line &line, const report_account &account, std::int64_t taken,
                  kind_set kinds) {
  line.add_number(account.id);
  line.add_number(account.parent == 0 ? -1 : std::int64_t{account.parent});
  line.add_number(account.level);
  line.add_login(account.login);
  for_each_of(kinds, [&](unsigned kind) { line.add_number(account.used[kind]); });
  for_each_of(kinds, [&](unsigned kind) { line.add_number(account.limit[kind]); });
  line.add_number(total_of(account, kinds));
  line.add(percent_text(percent_of(account, kinds)));
  line.add(name_of(state_of(account, kinds)));
  for_each_of(kinds, [&](unsigned kind) { line.add(name_of(account.states[kind])); });
  for_each_of(kinds, [&](unsigned kind) { line.add_number(account.updates[kind]); });
  line.add_number(age_of(account, taken, kinds));
  line.end();
}

}  // namespace

void separated_line::add(std::string_view text) {
  const bool is_csv = format_ == separated_format::csv;
  // The first value is never empty, so an empty line is the beginning of one.
  if (!line_.empty()) line_ += is_csv ? ',' : '\t';
  line_ += is_csv ? csv_text(text) : tsv_text(text);
}

void separated_line::add_number(std::int64_t number) {
  add(number < 0 ? "" : std::to_string(number));
}

void separated_line::add_login(std::string_view login) {
  add(guarded(login));
}

void separated_line::end() {
  line_ += format_ == separated_format::csv ? "\r\n" : "\n";
  write_text(stream_, line_);
  line_.clear();
}

void write_separated(FILE *stream, separated_format format, const report_platform &platform,
                     const account_source &source, kind_set kinds) {
  separated_line line(stream, format);
  write_head(line, kinds);
  source(
      [&](const report_account &account) { write_values(line, account, platform.taken, kinds); });
}
