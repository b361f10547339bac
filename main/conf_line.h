// The keyword-anywhere line rules, shared by the readers that follow them. Internal to main/.
#ifndef MAIN_CONF_LINE_H
#define MAIN_CONF_LINE_H

#include <cstdio>

// Reads the next line (pieces of at most 255 bytes) that still holds text after everything from
// its first "#" was cut off and that has `keyword` in it; counts every piece read in *line_number.
// Returns the place of the keyword inside `buffer`, or null at the end of the file.
inline constexpr int conf_line_size = 256;
const char *next_line_with_keyword(FILE *file, const char *keyword, char (&buffer)[conf_line_size],
                                   int &line_number);

#endif
