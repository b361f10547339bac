#include "storage/config.h"

#include <strings.h>

#include <charconv>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string_view>

#include "base/parseconfig.h"
#include "base/view.h"
#include "paths.h"
#include "zarn_cache_internal.h"
#include "zarn_str.h"

QX_LOG_SOURCE("../main/zarn_storage");

namespace {

constexpr size_t longest_directory = 4095;

struct process_state {
  std::shared_mutex lock;  // guards all that follows
  storage_snapshot current;
  c_string node_id;
};

// Never destroyed: threads of a service may still come here while the process exits.
process_state &process() {
  static auto &state = *new process_state;
  return state;
}

// The file's directives, empty where it is silent.
struct directives {
  safestr_owner system, transfer_in, transfer_out, cache, cache_expire, trash_expire,
      upload_interval;
};

directives read_directives() {
  safestr_t texts[7] = {};
  const parseconfig_entry entries[] = {
      {"STORAGE_SYSTEM", &texts[0]},        {"STORAGE_TRANSFERIN_D", &texts[1]},
      {"STORAGE_TRANSFEROUT_D", &texts[2]}, {"STORAGE_CACHE_D", &texts[3]},
      {"STORAGE_CACHE_EXPIRE", &texts[4]},  {"STORAGE_TRASH_EXPIRE", &texts[5]},
      {"S3_UPL_INTERVAL", &texts[6]},
  };
  parseconfig(qx_path(QX_PATH_STORAGE_CONF), entries, std::size(entries));
  return {safestr_owner(texts[0]), safestr_owner(texts[1]), safestr_owner(texts[2]),
          safestr_owner(texts[3]), safestr_owner(texts[4]), safestr_owner(texts[5]),
          safestr_owner(texts[6])};
}

std::string directory_or(const safestr_owner &text, qx_path_id fallback) {
  return is_empty(text.get()) ? qx_path(fallback) : text.get();
}

// A text that is no number leaves the default.
void take_number(const safestr_owner &text, int &number) {
  if (text == nullptr) return;
  const std::string_view digits = text.get();
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
}

storage_config read_config(const char *base_dir, const char *monitor_dir) {
  const directives found = read_directives();
  storage_config config;
  if (found.system && std::strcmp(found.system.get(), word_of(storage_engine::s3)) == 0)
    config.engine = storage_engine::s3;
  config.transfer_in = directory_or(found.transfer_in, QX_PATH_TRANSFER_IN);
  config.transfer_out = directory_or(found.transfer_out, QX_PATH_TRANSFER_OUT);
  config.cache = directory_or(found.cache, QX_PATH_STORAGE_CACHE);
  take_number(found.cache_expire, config.cache_expire);
  take_number(found.trash_expire, config.trash_expire);
  take_number(found.upload_interval, config.upload_interval);
  config.base_dir = base_dir;
  config.monitor_dir = monitor_dir == nullptr ? config.base_dir + "/monitor" : monitor_dir;
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
  const std::shared_lock guard(process().lock);
  return process().current;
}

int qx_storage_load_config(const char *base_dir, const char *monitor_dir) {
  const call_site here = QX_HERE;
  return no_throw(-1, [=] {
    if (is_empty(base_dir)) {
      log_condition_failed(here);
      return -1;
    }
    auto config = std::make_shared<const storage_config>(read_config(base_dir, monitor_dir));
    if (has_long_directory(*config)) {
      log_condition_failed({here.source, here.function, __LINE__});
      return -1;
    }
    // The old configuration goes after the lock, unless a session still keeps it.
    const std::unique_lock guard(process().lock);
    process().current.config.swap(config);
    return 0;
  });
}

int qx_storage_initialize(const char *base_dir, const char *monitor_dir) {
  // A node without an id has a storage all the same: nothing here depends on it.
  c_string node_id(get_nodeid());
  {
    const std::unique_lock guard(process().lock);
    process().node_id.swap(node_id);
  }
  if (qx_storage_load_config(base_dir, monitor_dir) != 0) {
    QX_LOG(FR_LOG_ERROR, "FATAL: Failed to initialize the storage system.\n\n");
    return -1;
  }
  // The queues are all that file storage wants of the cache, and only S3 has them.
  if (take_snapshot().config->engine == storage_engine::s3 && renew_cache_client() != 0) {
    QX_LOG(FR_LOG_ERROR, "Failed to initialize connection to the DisDB server.\n\n");
    return -1;
  }
  return 0;
}

void qx_storage_cleanup(void) {
  const std::unique_lock guard(process().lock);
  process().node_id.reset();
}

int qx_storage_register_api(const qx_storage_api_t *api) {
  if (api == nullptr || api->s3_usable == nullptr || api->location == nullptr ||
      api->download == nullptr || api->release == nullptr) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  return no_throw(-1, [api] {
    auto service = std::make_shared<const qx_storage_api_t>(*api);
    const std::unique_lock guard(process().lock);
    process().current.service.swap(service);
    return 0;
  });
}

void qx_storage_unregister_api(void) {
  const std::unique_lock guard(process().lock);
  process().current.service.reset();
}
