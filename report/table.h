// Accounts as a table for a terminal.
#ifndef REPORT_TABLE_H
#define REPORT_TABLE_H

#include <cstdio>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "report/choice.h"

// How the cells of the table are written; which lines there are is for `choice.h`.
struct table_style {
  kind_set kinds = all_kinds;
  bool human = false;   // sizes and ages in units that people read
  bool indent = false;  // logins by their depth
};

struct character_range {
  char32_t first, last;
};

// Characters that could disturb what stands around them, or that are invisible: controls, marks of
// direction, ends of lines, fillers, selectors of variants, tags.
inline constexpr character_range disturbing[] = {
    {0, 0x1f},        {0x7f, 0x9f},       {0xad, 0xad},       {0x34f, 0x34f},    {0x61c, 0x61c},
    {0x115f, 0x1160}, {0x17b4, 0x17b5},   {0x180b, 0x180f},   {0x200b, 0x200f},  {0x2028, 0x202e},
    {0x2060, 0x206f}, {0x3164, 0x3164},   {0xfe00, 0xfe0f},   {0xfeff, 0xfeff},  {0xffa0, 0xffa0},
    {0xfff0, 0xfffb}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a}, {0xe0000, 0xe0fff}};

// The limit is that of the kind that is used the most of it, which stands beside it; the first
// limit where no figure of a kind with one is known. In a login each byte of a disturbing character
// is written as "\xNN".
void write_table(FILE *stream, const report_platform &platform,
                 std::span<const chosen_account> accounts, const table_style &style);

// Lines of cells in columns: all lines are measured first, and then printed.
// Every line that is printed must have been measured before.
class table_columns {
 public:
  // The heads, each with whether its column is one of text, which begins at the left.
  // Sets the locale of the process for characters, which knows how wide they are.
  explicit table_columns(const std::vector<std::pair<std::string, bool>> &heads);
  // Widens the columns to the cells; a line has a cell for each column.
  void measure(const std::vector<std::string> &line);
  // The heads as a line, as wide as the columns have become.
  void print_head(FILE *stream) const;
  void print(FILE *stream, const std::vector<std::string> &line) const;

 private:
  struct column {
    std::string head;
    bool is_text;
    size_t width;
  };
  std::vector<column> columns_;
};

// A byte count in the unit that suits it: "1.50 KB".
std::string human_size(std::int64_t bytes);

// A time in the unit that suits it: "59 s", "3 h".
std::string human_time(std::int64_t seconds);

// The cell of a number, a size and an age; "-" for a negative one. For people, in units.
std::string number_text(std::int64_t number);
std::string size_text(std::int64_t bytes, bool human);
std::string age_text(std::int64_t seconds, bool human);

// A login, fit for a terminal; "-" for an account without one.
std::string shown_login(std::string_view login);

#endif
