// Checks the names of stored files.
// By their text alone; nothing is looked up.
#include "main/storage/names.h"

#include <algorithm>

bool has_parent_component(std::string_view name) {
  // By component: a name may well have two dots in it.
  for (size_t start = 0; start <= name.size();) {
    const size_t end = std::min(name.find('/', start), name.size());
    if (name.substr(start, end - start) == "..") return true;
    start = end + 1;
  }
  return false;
}

bool has_reserved_byte(std::string_view name) {
  return std::any_of(name.begin(), name.end(),
                     [](unsigned char byte) { return byte == ':' || byte < ' ' || byte == 0x7f; });
}

bool is_object_key(std::string_view name) {
  // A name that ends in a slash is a folder's: it would be in the way of a file's own.
  return !name.empty() && !name.starts_with('/') && !name.ends_with('/') &&
         !has_parent_component(name) && !has_reserved_byte(name);
}
