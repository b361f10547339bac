// What file storage keeps for the process: its configuration and the transfer service. Sessions
// take both as they are when they start, and keep them. Internal to main/storage/.
#ifndef MAIN_STORAGE_CONFIG_H
#define MAIN_STORAGE_CONFIG_H

#include <memory>
#include <string>

#include <spoolcap/zarn_storage.h>
#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"

struct storage_engine;

// What storage.conf says, with defaults filled in. Never changed once it is in use.
struct storage_config {
  const storage_engine *engine = nullptr;
  std::string transfer_in;
  std::string transfer_out;
  std::string cache;
  int cache_expire = 48;  // this and the next two are the transfer service's, and only kept
  int trash_expire = 1;
  int upload_interval = 120;
  std::string base_dir;
  std::string monitor_dir;
};

// Configuration and service as read under one lock. `config` is null before the first load,
// `service` while none is registered.
struct storage_snapshot {
  std::shared_ptr<const storage_config> config;
  std::shared_ptr<const qx_storage_api_t> service;

  bool s3_usable() const { return service != nullptr && service->s3_usable(service->context) != 0; }

  // The service's text; null when it has none or is not there.
  c_string location(const qx_storage_location_query_t &query) const {
    return c_string(service == nullptr ? nullptr : service->location(service->context, &query));
  }

  // Something was queued for the service.
  void tell_queued() const {
    if (service != nullptr && service->queued != nullptr) service->queued(service->context);
  }
};

// The folder of a kind's files under engine POSIX, empty when it has none. New files grow in its
// sub-folder "tmp".
std::string folder_of_type(const storage_config &config, int type);

// A copy of both pointers; what they point at stays for as long as the copy.
storage_snapshot take_snapshot() noexcept;

// Reads the file of configuration and takes it from now on. -1, logged in the name of `site`, with
// the configuration as it was.
int load_config(const call_site &site, const char *base_dir, const char *monitor_dir);

// Takes a service, or none, from now on.
void set_service(std::shared_ptr<const qx_storage_api_t> service) noexcept;

// Keeps the node's id, or forgets it. No module reads it from here today.
void set_node_id(c_string node_id) noexcept;

#endif
