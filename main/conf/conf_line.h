// What the readers of configuration files share: the keyword-anywhere line rules, and values made
// of fields. Internal to main/.
#ifndef MAIN_CONF_CONF_LINE_H
#define MAIN_CONF_CONF_LINE_H

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/base/owner.h"
#include "platform/base/str.h"

// Reads the next line (pieces of at most 255 bytes) that still holds text after everything from
// its first "#" was cut off and that has `keyword` in it; counts every piece read in *line_number.
// Returns the place of the keyword inside `buffer`, or null at the end of the file.
inline constexpr int conf_line_size = 256;
const char *next_line_with_keyword(FILE *file, const char *keyword, char (&buffer)[conf_line_size],
                                   int &line_number);

// The fields of a value between its separators; none of a NULL value.
class value_fields {
 public:
  value_fields() = default;
  explicit value_fields(const char *value, char separator = ':')
      : fields_(fr_explode(value, separator, &count_)) {}

  size_t count() const { return count_; }
  const char *operator[](size_t index) const { return fields_.get()[index]; }
  int number(size_t index) const { return std::atoi(fields_.get()[index]); }
  // Fields `first` to `last` with the colons that were between them.
  c_string joined(size_t first, size_t last) const {
    return c_string(fr_implode(fields_.get(), first, last, ':'));
  }

 private:
  size_t count_ = 0;
  std::unique_ptr<char *, call_to_release<fr_explode_free>> fields_;
};

#endif
