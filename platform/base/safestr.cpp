// Counted strings whose handle is a C string.
// Exported to C; one block of malloc for each string.
#include <spoolcap/safestr.h>

#include <cstdlib>
#include <cstring>

// The length stands in front of the text that the handle points at.
safestr_t safestr_create(const char *text, size_t length) {
  if (text == nullptr) return nullptr;
  auto *block = static_cast<char *>(std::malloc(sizeof length + length + 1));
  if (block == nullptr) return nullptr;
  // Copied, not assigned: the same bytes are read back from a char pointer, without a cast.
  std::memcpy(block, &length, sizeof length);
  safestr_t safestr = block + sizeof length;
  std::memcpy(safestr, text, length);
  safestr[length] = '\0';
  return safestr;
}

safestr_t safestr_dup(const char *text) {
  return text == nullptr ? nullptr : safestr_create(text, std::strlen(text));
}

size_t safestr_length(const char *safestr) {
  size_t length = 0;
  if (safestr != nullptr) std::memcpy(&length, safestr - sizeof length, sizeof length);
  return length;
}

void safestr_free(safestr_t safestr) {
  if (safestr != nullptr) std::free(safestr - sizeof(size_t));
}
