#include "main/storage/config.h"

#include <strings.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <shared_mutex>

#include <spoolcap/zarn_str.h>
#include "common/paths.h"
#include "main/cache/client.h"
#include "main/storage/files.h"
#include "platform/base/parseconfig.h"
#include "platform/base/view.h"

namespace {

constexpr size_t longest_directory = 4095;

struct process_state {
  std::shared_mutex lock;  // guards all that follows
  storage_snapshot current;
  c_string node_id;
};

// Threads of a service may still come here while the process exits.
never_destroyed<process_state> process;

// The file's directives, NULL where it is silent.
struct directives {
  directives() = default;
  directives(const directives &) = delete;
  directives &operator=(const directives &) = delete;
  ~directives() {
    for (safestr_t text :
         {system, transfer_in, transfer_out, cache, cache_expire, trash_expire, upload_interval}) {
      safestr_free(text);
    }
  }

  // False, logged, when the file is there and cannot be read: the defaults, taken then, would move
  // the whole storage elsewhere.
  bool read(const call_site &site);

  safestr_t system = nullptr;
  safestr_t transfer_in = nullptr;
  safestr_t transfer_out = nullptr;
  safestr_t cache = nullptr;
  safestr_t cache_expire = nullptr;
  safestr_t trash_expire = nullptr;
  safestr_t upload_interval = nullptr;
};

bool directives::read(const call_site &site) {
  const parseconfig_entry entries[] = {
      {"STORAGE_SYSTEM", &system},
      {"STORAGE_TRANSFERIN_D", &transfer_in},
      {"STORAGE_TRANSFEROUT_D", &transfer_out},
      {"STORAGE_CACHE_D", &cache},
      {"STORAGE_CACHE_EXPIRE", &cache_expire},
      {"STORAGE_TRASH_EXPIRE", &trash_expire},
      {"S3_UPL_INTERVAL", &upload_interval},
  };
  const char *const path = qx_path(QX_PATH_STORAGE_CONF);
  if (parseconfig(path, entries, std::size(entries)) == 0 || errno == ENOENT) return true;
  QX_LOG_AT(site, FR_LOG_WARNING, "Cannot read %s: %s.\n\n", path, std::strerror(errno));
  return false;
}

std::string directory_or(const char *text, qx_path_id fallback) {
  return is_empty(text) ? qx_path(fallback) : text;
}

// A text that is no number leaves the default.
void take_number(const char *text, int &number) {
  if (text != nullptr) std::from_chars(text, text + std::strlen(text), number);
}

storage_config make_config(const directives &found, const char *base_dir, const char *monitor_dir) {
  storage_config config;
  if (found.system != nullptr && std::strcmp(found.system, word_of(storage_engine::s3)) == 0)
    config.engine = storage_engine::s3;
  config.transfer_in = directory_or(found.transfer_in, QX_PATH_TRANSFER_IN);
  config.transfer_out = directory_or(found.transfer_out, QX_PATH_TRANSFER_OUT);
  config.cache = directory_or(found.cache, QX_PATH_STORAGE_CACHE);
  take_number(found.cache_expire, config.cache_expire);
  take_number(found.trash_expire, config.trash_expire);
  take_number(found.upload_interval, config.upload_interval);
  config.base_dir = base_dir;
  config.monitor_dir = is_empty(monitor_dir) ? config.base_dir + "/monitor" : monitor_dir;
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

const char *word_of(storage_engine engine) {
  return engine == storage_engine::s3 ? "s3" : "posix";
}

storage_engine engine_of(const char *word) {
  for (const storage_engine engine : {storage_engine::posix, storage_engine::s3}) {
    if (word == nullptr || strcasecmp(word, word_of(engine)) == 0) return engine;
  }
  return storage_engine::invalid;
}

storage_snapshot take_snapshot() {
  const std::shared_lock guard(process.value.lock);
  return process.value.current;
}

int qx_storage_load_config(const char *base_dir, const char *monitor_dir) {
  const call_site here = QX_HERE;
  seed_names();
  return no_throw(-1, [=] {
    if (is_empty(base_dir)) {
      log_condition_failed(here);
      return -1;
    }
    directives found;
    if (!found.read(here)) return -1;
    auto config = std::make_shared<const storage_config>(make_config(found, base_dir, monitor_dir));
    if (has_long_directory(*config)) {
      log_condition_failed({here.source, here.function, __LINE__});
      return -1;
    }
    // The old configuration goes after the lock, unless a session still keeps it.
    const std::unique_lock guard(process.value.lock);
    process.value.current.config.swap(config);
    return 0;
  });
}

int qx_storage_initialize(const char *base_dir, const char *monitor_dir) {
  // A node without an id has a storage all the same: nothing here depends on it.
  c_string node_id(get_nodeid());
  {
    const std::unique_lock guard(process.value.lock);
    process.value.node_id.swap(node_id);
  }
  if (qx_storage_load_config(base_dir, monitor_dir) != 0) {
    QX_LOG(FR_LOG_ERROR, "FATAL: Failed to initialize the storage system.\n\n");
    return -1;
  }
  // The queues are all that file storage wants of the cache, and only S3 has them.
  if (take_snapshot().config->engine == storage_engine::s3 && !recreate_cache_client()) {
    QX_LOG(FR_LOG_ERROR, "Failed to initialize connection to the DisDB server.\n\n");
    return -1;
  }
  return 0;
}

void qx_storage_cleanup(void) {
  const std::unique_lock guard(process.value.lock);
  process.value.node_id.reset();
}

int qx_storage_register_api(const qx_storage_api_t *api) {
  if (api == nullptr || api->s3_usable == nullptr || api->location == nullptr ||
      api->download == nullptr || api->release == nullptr) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  return no_throw(-1, [api] {
    auto service = std::make_shared<const qx_storage_api_t>(*api);
    const std::unique_lock guard(process.value.lock);
    process.value.current.service.swap(service);
    return 0;
  });
}

void qx_storage_unregister_api(void) {
  const std::unique_lock guard(process.value.lock);
  process.value.current.service.reset();
}
