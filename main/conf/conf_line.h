// What the readers of configuration files share: lines with a keyword anywhere, and values made of
// fields.
#ifndef MAIN_CONF_CONF_LINE_H
#define MAIN_CONF_CONF_LINE_H

#include <cstdio>
#include <cstdlib>

#include "platform/base/owner.h"
#include "platform/base/str.h"
#include "platform/base/text_array.h"

// Reads up to the next line that has `keyword` before its first "#". Returns the keyword's place in
// `buffer`, or null at the end of the file. Lines are read in pieces of at most 255 bytes;
// `line_number` counts the pieces.
inline constexpr int conf_line_size = 256;
const char *next_line_with_keyword(FILE *file, const char *keyword, char (&buffer)[conf_line_size],
                                   int &line_number) noexcept;

// The fields of a value between its separators; no fields for a NULL value or out of memory.
class value_fields {
 public:
  value_fields() noexcept = default;
  explicit value_fields(const char *value, char separator = ':') noexcept
      : fields_(fr_explode(value, separator)) {}

  size_t count() const noexcept { return fields_.count(); }
  // Borrowed from this object. The index must be below `count`.
  const char *operator[](size_t index) const noexcept { return fields_[index]; }
  int number(size_t index) const noexcept { return std::atoi(fields_[index]); }
  // Fields `first` to `last`, joined with colons.
  c_string joined(size_t first, size_t last) const noexcept {
    return fr_implode(fields_, first, last, ':');
  }

 private:
  text_array fields_;
};

#endif
