// What the service and its commands are configured with: transfer.conf, storage.conf, the node.
#ifndef TRANSFER_SETTINGS_H
#define TRANSFER_SETTINGS_H

#include <optional>
#include <string>

#include "main/transfer/config.h"

// Both files in one, checked. `config.node` comes from the file of the node's id.
struct service_settings {
  transfer_config config;
  std::string cache;
  std::string transfer_in;
  std::string transfer_out;
  int cache_expire = 48;      // hours since the last use
  int trash_expire = 1;       // hours since the last write
  int upload_interval = 120;  // seconds between looks at an idle queue
};

// Either settings or an error, never both.
struct settings_reading {
  std::optional<service_settings> settings;
  std::string error;  // one line
};
// Reads transfer.conf, storage.conf and the id of the node anew each time.
settings_reading read_settings();

#endif
