// Lines of a configuration file that hold a keyword.
// For the files of database and cache, whose keywords may stand anywhere in a line.
#include "main/conf/conf_line.h"

#include <cstring>

const char *next_line_with_keyword(FILE *file, const char *keyword, char (&buffer)[conf_line_size],
                                   int &line_number) noexcept {
  while (std::fgets(buffer, conf_line_size, file) != nullptr) {
    ++line_number;
    // A "#" hides the rest of its piece only: a longer line goes on in the next piece.
    buffer[std::strcspn(buffer, "#")] = '\0';
    if (buffer[0] == '\0') continue;
    if (const char *found = std::strstr(buffer, keyword)) return found;
  }
  return nullptr;
}
