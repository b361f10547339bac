/* The directive files of the platform that are read by table.
 *
 * A line is a keyword, blanks, and a value; an "=" between blanks may stand before the value. The
 * value is trimmed, and double quotes around it are removed. A line whose first non-blank byte is
 * "#" is a comment. Keywords are matched exactly; the last line of a keyword wins; unknown
 * keywords are ignored. */
#ifndef PLATFORM_BASE_PARSECONFIG_H
#define PLATFORM_BASE_PARSECONFIG_H

#include <cstddef>
#include <string>
#include <string_view>

/* A line as read; no keyword for a comment and an empty line. Borrowed from the line. */
struct parseconfig_line {
  std::string_view keyword;
  std::string_view value;
};
parseconfig_line split_config_line(std::string_view line);

/* One keyword and the string that takes its value. */
struct parseconfig_entry {
  const char *keyword;
  std::string *value;
};

/* Fills the value of every entry whose keyword is in the file, and leaves the rest
 * untouched. 0, or -1 with errno when the file cannot be read or memory is short. */
int parseconfig(const char *path, const parseconfig_entry *entries, size_t count);

#endif
