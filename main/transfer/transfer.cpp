// The public operations, and the table that storage calls.
// One host for the process, which is never destroyed.
#include <spoolcap/transfer.h>

#include <pthread.h>

#include <memory>

#include "main/transfer/host.h"
#include "platform/base/diagnostics.h"

namespace {

// Sessions keep to the table, and so to this, until they end.
constinit never_destroyed<transfer_host> host;

int is_usable(void * /*context*/) {
  return no_throw(0, [] { return host.value.is_usable() ? 1 : 0; });
}

char *location(void * /*context*/, const qx_storage_location_query_t *query) {
  return no_throw<char *>(nullptr, [=] { return host.value.location(query->first_id).release(); });
}

void *download(void * /*context*/, const char *stored_name, const char * /*shard*/,
               const char * /*engine*/, const char *extra, const char *path,
               qx_storage_done_fn done, void *cookie) {
  return no_throw<void *>(
      nullptr, [=] { return host.value.download(stored_name, extra, path, done, cookie); });
}

void release(void * /*context*/, void *request) {
  delete static_cast<ordered_download *>(request);
}

void queued(void * /*context*/) {
  no_throw(0, [] {
    host.value.queued();
    return 0;
  });
}

constexpr qx_storage_api_t table = {.context = nullptr,
                                    .s3_usable = is_usable,
                                    .location = location,
                                    .download = download,
                                    .release = release,
                                    .queued = queued};

// Handlers stay for the life of the process, so they are set once.
bool is_fork_safe() {
  return ::pthread_atfork([] { host.value.before_fork(); },
                          [] { host.value.after_fork_in_parent(); },
                          [] { host.value.after_fork_in_child(); }) == 0;
}

int start() {
  static const bool safe = is_fork_safe();
  if (!safe) return -1;
  transfer_reading reading = read_transfer_config();
  if (!reading.config) {
    QX_LOG(FR_LOG_ERROR, "%s\n", reading.error.c_str());
    return -1;
  }
  // Before storage learns of the table: it may be called at once.
  host.value.start(std::move(*reading.config));
  return qx_storage_register_api(&table);
}

}  // namespace

int qx_transfer_start(void) {
  return no_throw(-1, start);
}

void qx_transfer_stop(void) {
  no_throw([] {
    // Never started, or stopped before: storage may have another service by now.
    if (!host.value.is_usable()) return;
    qx_storage_unregister_api();
    host.value.stop();
  });
}
