// Reads storage.conf, and keeps what file storage has for the process.
// Directories are named here; other files make them and write into them.
#include "main/storage/config.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "common/paths.h"
#include "main/account/media.h"
#include "main/storage/engine.h"
#include "platform/base/parseconfig.h"
#include "platform/base/view.h"

namespace {

// The limit of the kernel less the NUL byte; longer paths would fail one by one later.
constexpr size_t longest_directory = 4095;

struct process_state {
  std::shared_mutex lock;  // guards all that follows
  storage_snapshot current;
  c_string node_id;
};

// Threads of a service may still come here while the process exits.
constinit never_destroyed<process_state> process;

// The file's directives, empty where it is silent.
struct directives {
  std::string system;
  std::string transfer_in;
  std::string transfer_out;
  std::string cache;
  std::string cache_expire;
  std::string trash_expire;
  std::string upload_interval;
};

// Nothing, logged, when the file is there and cannot be read: the defaults, taken then, would move
// the whole storage elsewhere.
std::optional<directives> read_directives(const call_site &site) {
  directives found;
  const parseconfig_entry entries[] = {
      {"STORAGE_SYSTEM", &found.system},
      {"STORAGE_TRANSFERIN_D", &found.transfer_in},
      {"STORAGE_TRANSFEROUT_D", &found.transfer_out},
      {"STORAGE_CACHE_D", &found.cache},
      {"STORAGE_CACHE_EXPIRE", &found.cache_expire},
      {"STORAGE_TRASH_EXPIRE", &found.trash_expire},
      {"S3_UPL_INTERVAL", &found.upload_interval},
  };
  const char *const path = qx_path(QX_PATH_STORAGE_CONF);
  if (parseconfig(path, entries, std::size(entries)) == 0 || errno == ENOENT) return found;
  QX_LOG_AT(site, FR_LOG_WARNING, "Cannot read %s: %s.\n\n", path, std::strerror(errno));
  return std::nullopt;
}

// A text that is no number leaves the default.
void take_number(const std::string &text, int &number) {
  std::from_chars(text.data(), text.data() + text.size(), number);
}

storage_config make_config(const directives &found, const char *base_dir, const char *monitor_dir) {
  storage_config config;
  config.engine = &configured_engine(found.system.c_str());
  config.transfer_in = qx_path_or(found.transfer_in.c_str(), QX_PATH_TRANSFER_IN);
  config.transfer_out = qx_path_or(found.transfer_out.c_str(), QX_PATH_TRANSFER_OUT);
  config.cache = qx_path_or(found.cache.c_str(), QX_PATH_STORAGE_CACHE);
  take_number(found.cache_expire, config.cache_expire);
  take_number(found.trash_expire, config.trash_expire);
  take_number(found.upload_interval, config.upload_interval);
  config.base_dir = base_dir;
  config.monitor_dir = is_empty(monitor_dir)
                           ? config.base_dir + "/" + media_of_type(QX_STORAGE_RECORDING).folder
                           : monitor_dir;
  return config;
}

bool has_long_directory(const storage_config &config) {
  for (const std::string *directory : {&config.transfer_in, &config.transfer_out, &config.cache,
                                       &config.base_dir, &config.monitor_dir}) {
    if (directory->size() > longest_directory) return true;
  }
  return false;
}

}  // namespace

std::string folder_of_type(const storage_config &config, int type) {
  if (type == QX_STORAGE_RECORDING) return config.monitor_dir;
  const char *const folder = media_of_type(type).folder;
  return folder == nullptr ? "" : config.base_dir + "/" + folder;
}

storage_snapshot take_snapshot() noexcept {
  // Many sessions start at once; only a reload or a new service needs the lock alone.
  const std::shared_lock guard(process->lock);
  return process->current;
}

int load_config(const call_site &site, const char *base_dir, const char *monitor_dir) {
  if (is_empty(base_dir)) {
    log_condition_failed(site);
    return -1;
  }
  const std::optional<directives> found = read_directives(site);
  if (!found) return -1;
  auto config = std::make_shared<const storage_config>(make_config(*found, base_dir, monitor_dir));
  if (has_long_directory(*config)) {
    log_condition_failed({site.source, site.function, __LINE__});
    return -1;
  }
  // The old configuration goes after the lock, unless a session still keeps it.
  const std::unique_lock guard(process->lock);
  process->current.config.swap(config);
  return 0;
}

void set_service(std::shared_ptr<const qx_storage_api_t> service) noexcept {
  const std::unique_lock guard(process->lock);
  // The old table goes after the lock, unless a session still keeps it.
  process->current.service.swap(service);
}

void set_node_id(c_string node_id) noexcept {
  const std::unique_lock guard(process->lock);
  process->node_id.swap(node_id);
}
