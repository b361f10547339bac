// Reads what the service takes from storage.conf.
#include "transfer/settings.h"

#include <algorithm>

#include "common/paths.h"
#include "main/storage/config.h"

settings_reading read_settings() {
  transfer_reading reading = read_transfer_config();
  if (!reading.config) return {.settings = std::nullopt, .error = reading.error};
  // Only the directories of hosts depend on the base directory, and nothing here uses them.
  if (load_config(QX_HERE, "/", nullptr) != 0) {
    return {.settings = std::nullopt,
            .error = std::string(qx_path(QX_PATH_STORAGE_CONF)) +
                     ": cannot be read, or has a directory that is too long"};
  }
  const auto storage = take_snapshot().config;
  service_settings settings{.config = std::move(*reading.config),
                            .cache = storage->cache,
                            .transfer_in = storage->transfer_in,
                            .transfer_out = storage->transfer_out,
                            .cache_expire = storage->cache_expire,
                            .trash_expire = storage->trash_expire,
                            // Zero or less would look without a pause.
                            .upload_interval = std::max(storage->upload_interval, 1)};
  return {.settings = std::move(settings), .error = {}};
}
