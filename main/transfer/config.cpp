// Finds the location of an owner, and the parts of a location's text.
// In memory only: config_reader.cpp reads the file.
#include "main/transfer/config.h"

#include <algorithm>

const transfer_location *transfer_config::find(std::string_view name) const {
  const auto found = std::find_if(locations.begin(), locations.end(),
                                  [name](const auto &location) { return location.name == name; });
  return found == locations.end() ? nullptr : &*found;
}

const std::string &transfer_config::location_of(int first_id) const {
  const auto owner = owner_locations.find(first_id);
  return owner == owner_locations.end() ? default_location : owner->second;
}

location_parts parts_of_location(std::string_view text) {
  const std::size_t at = text.find('@');
  if (at == std::string_view::npos) return {text, {}};
  return {text.substr(0, at), text.substr(at + 1)};
}
