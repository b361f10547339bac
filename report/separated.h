// Accounts as lines of values, with a line of names at the head: CSV and TSV.
//
// CSV is as RFC 4180 has it, lines ending with CR LF. In TSV lines end with LF, and a backslash
// stands before "\", "t", "n" and "r" for a backslash, tab, line feed and carriage return. What is
// unknown, and no limit, is an empty value. A spreadsheet could take a login for a formula if it
// begins with = + - @, their wide forms, a tab or the end of a line. Such a login, and one that
// begins with an apostrophe, has one more apostrophe in front.
#ifndef REPORT_SEPARATED_H
#define REPORT_SEPARATED_H

#include <cstdio>
#include <string>
#include <string_view>

#include "report/json.h"

enum class separated_format { csv, tsv };

// One line, written value by value; the first is not empty. It adds separators and quotes itself:
// callers pass bare values in the order of the head.
class separated_line {
 public:
  separated_line(FILE *stream, separated_format format) : stream_(stream), format_(format) {}
  // Any text; quoted or escaped where the format needs it.
  void add(std::string_view text);
  void add_number(std::int64_t number);  // empty for a negative one
  // Guarded against spreadsheets; a null view is an empty value.
  void add_login(std::string_view login);
  void end();  // writes the line; the next value begins another

 private:
  FILE *stream_;
  separated_format format_;
  std::string line_;
};

// The head, then a line for each account that the source gives.
void write_separated(FILE *stream, separated_format format, const report_platform &platform,
                     const account_source &source, kind_set kinds);

#endif
