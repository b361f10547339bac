// The configuration of the transfer service, read by the service and by the hosts that it serves.
#ifndef MAIN_TRANSFER_CONFIG_H
#define MAIN_TRANSFER_CONFIG_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One line TRANSFER_LOCATION. Keys to the store are not here: hosts need none.
struct transfer_location {
  std::string name;
  std::string endpoint;
  std::string region;
  std::string bucket;
  bool virtual_host = false;
  std::string prefix;
};

// All values were checked by the reader. Paths are absolute.
struct transfer_config {
  std::vector<transfer_location> locations;
  std::string default_location;
  std::map<int, std::string> owner_locations;  // by first id
  std::string credentials_file;
  std::string ca_file;  // empty for none
  std::string socket;
  int uploads = 16;  // at once
  int downloads = 16;
  std::int64_t bytes_per_second = 0;         // 0 for no limit
  std::int64_t multipart_from = 64LL << 20;  // bytes; smaller files go in one request
  std::int64_t part_size = 16LL << 20;
  int wait = 30;                // seconds that a download waits for a queued upload
  std::int64_t cache_size = 0;  // bytes; 0 for no limit
  int cache_free = 10;          // percent of the file system
  std::string metrics_file;     // empty for none
  std::string node;             // id of this node

  // Null for an unknown name; borrowed.
  const transfer_location *find(std::string_view name) const;
  // Where new files of a first id go.
  const std::string &location_of(int first_id) const;
  // "<location>@<node id>"
  std::string location_text(int first_id) const { return location_of(first_id) + "@" + node; }
};

// A configuration, or one line that says what is wrong: "<file>:<line>: ...".
struct transfer_reading {
  std::optional<transfer_config> config;
  std::string error;
};
// Reads transfer.conf and the id of the node. Without a location there is no configuration.
transfer_reading read_transfer_config();

// The parts of a location text. The location is what precedes the first "@".
struct location_parts {
  std::string_view location;
  std::string_view node;
};
// A text without "@" is all location. Views into the text.
location_parts parts_of_location(std::string_view text);

#endif
