// Heap text for C callers.
// In memory only; results are malloc'ed.
#include "platform/base/text.h"

#include <cstdio>
#include <cstring>
#include <new>

c_string copy_text(std::string_view text) {
  c_string copy(static_cast<char *>(std::malloc(text.size() + 1)));
  if (!copy) throw std::bad_alloc();
  text.copy(copy.get(), text.size());
  copy.get()[text.size()] = '\0';
  return copy;
}

c_string format_text(const char *format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  c_string text = vformat_text(format, arguments);
  va_end(arguments);
  return text;
}

c_string vformat_text(const char *format, va_list arguments) noexcept {
  char *text = nullptr;
  // vasprintf leaves its pointer undefined on failure, so nothing is freed then.
  if (format == nullptr || ::vasprintf(&text, format, arguments) < 0) return nullptr;
  return c_string(text);
}
