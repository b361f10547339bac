// Reads what the service takes from storage.conf.
// Beside that it takes transfer.conf and the node's id from main/transfer.
#include "transfer/settings.h"

#include "common/paths.h"
#include "main/storage/config.h"

namespace {

// A number out of its range would remove files that wait for their commit, or look without a pause.
// Empty, or one line.
std::string find_wrong_number(const storage_config &storage) {
  struct number {
    const char *name;
    int value;
    int most;
  };
  for (const number &one : {number{"STORAGE_TRASH_EXPIRE", storage.trash_expire, 8760},
                            number{"STORAGE_CACHE_EXPIRE", storage.cache_expire, 87600},
                            number{"S3_UPL_INTERVAL", storage.upload_interval, 86400}}) {
    if (one.value >= 1 && one.value <= one.most) continue;
    return std::string(qx_path(QX_PATH_STORAGE_CONF)) + ": " + one.name + " is " +
           std::to_string(one.value) + ": it must be from 1 to " + std::to_string(one.most);
  }
  return "";
}

}  // namespace

settings_reading read_settings() {
  transfer_reading reading = read_transfer_config();
  if (!reading.config) return {.settings = std::nullopt, .error = reading.error};
  // Only the directories of hosts depend on the base directory, and nothing here uses them.
  if (load_config(QX_HERE, "/", nullptr) != 0) {
    return {.settings = std::nullopt,
            .error = std::string(qx_path(QX_PATH_STORAGE_CONF)) +
                     ": cannot be read, or has a directory that is too long"};
  }
  // The library's own reader: hosts and service must see the same folders.
  const auto storage = take_snapshot().config;
  std::string wrong = find_wrong_number(*storage);
  if (!wrong.empty()) return {.settings = std::nullopt, .error = std::move(wrong)};
  service_settings settings{.config = std::move(*reading.config),
                            .cache = storage->cache,
                            .transfer_in = storage->transfer_in,
                            .transfer_out = storage->transfer_out,
                            .cache_expire = storage->cache_expire,
                            .trash_expire = storage->trash_expire,
                            .upload_interval = storage->upload_interval};
  return {.settings = std::move(settings), .error = {}};
}
