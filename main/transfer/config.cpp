// Reads transfer.conf.
#include "main/transfer/config.h"

location_parts parts_of_location(std::string_view text) {
  const std::size_t at = text.find('@');
  if (at == std::string_view::npos) return {text, {}};
  return {text.substr(0, at), text.substr(at + 1)};
}
