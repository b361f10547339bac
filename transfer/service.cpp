// Builds the parts of the service, and starts and stops them in their order.
// On the main thread. What each part does is in its own files.
#include "transfer/service.h"

#include <algorithm>

#include <spoolcap/zarn_str.h>
#include <spoolcap/zarn_velkan.h>
#include "platform/base/diagnostics.h"
#include "platform/velkan/velkan.h"
#include "transfer/downloads.h"
#include "transfer/server.h"
#include "transfer/uploads.h"

namespace {

// An unused cached file expires before its deletion is forgotten, also on a node that was off for
// as long.
int keeping_of_deletions(int cache_expire) {
  constexpr int least_days = 7, days_more = 2;
  return std::max(least_days * 24, cache_expire + days_more * 24) * 3600;
}

worker_settings for_workers(const service_settings &settings) {
  return {.config = settings.config,
          .cache = settings.cache,
          .look_interval = settings.upload_interval,
          // The time after which leftovers count as dead, for transfers as for files.
          .unclear_window = settings.trash_expire * 3600,
          .deletions_kept = keeping_of_deletions(settings.cache_expire)};
}

keeper_settings for_keeper(const service_settings &settings) {
  return {.cache = settings.cache,
          .transfer_in = settings.transfer_in,
          .transfer_out = settings.transfer_out,
          .cache_expire = settings.cache_expire,
          .trash_expire = settings.trash_expire,
          .cache_size = settings.config.cache_size,
          .cache_free = settings.config.cache_free,
          .upload_interval = settings.upload_interval,
          .deletions_kept = keeping_of_deletions(settings.cache_expire),
          .config = settings.config};
}

// What the running parts cannot change: keeps the old value and adds a line that says so.
template <class Value>
void keep(const char *what, const Value &old, Value &now, std::vector<std::string> &lines) {
  if (old == now) return;
  now = old;
  lines.push_back(std::string(what) + " changes with the next restart only");
}

}  // namespace

// In the order of their start; destroyed the other way round.
struct transfer_service::parts {
  parts(vk_client *client, service_settings what)
      : settings(std::move(what)), queue(client, node) {}

  service_report report();
  void order(download_order what);

  service_settings settings;  // the main thread's
  const std::string node = settings.config.node;
  const double started = qx_get_tstamp();
  s3_control control;
  transfer_state state;
  transfer_locations locations{control};
  transfer_queue queue;
  cache_keeper keeper{queue, locations, state};
  transfer_workers workers{queue, locations, state, control};
  transfer_downloads downloads{queue, locations, state, control};
  std::unique_ptr<transfer_server> server;
};

service_report transfer_service::parts::report() {
  service_report report;
  report.node = node;
  report.started = started;
  report.now = qx_get_tstamp();
  report.queue = queue.summary();
  report.idle = report.queue && workers.idle(*report.queue);
  if (report.queue) report.dangerous_policy = queue.dangerous_policy().value_or("");
  report.refusal = queue.refusal();
  report.running = state.running();
  report.parked = workers.parked();
  report.parked_count = workers.parked_count();
  report.waiting = workers.waiting();
  report.locations = locations.report();
  report.cache = keeper.report();
  report.counters = &state.counters;
  report.sent_bytes = control.sent;
  report.received_bytes = control.received;
  return report;
}

// What comes into the cache is looked at, whether there is room for more.
void transfer_service::parts::order(download_order what) {
  what.done = [this, done = std::move(what.done)](bool whole) {
    done(whole);
    if (whole) keeper.inserted();
  };
  downloads.order(std::move(what));
}

transfer_service::transfer_service() = default;

transfer_service::~transfer_service() {
  stop();
}

std::string transfer_service::configure(service_settings settings) {
  // The service has a client of its own, past the library's one for lookups and its budget.
  vk_client_t *client = nullptr;
  const bool has_servers = ast_vk_init(&client) == 0;
  if (client == nullptr) return "out of memory";
  vk_set_patient(client);
  auto made = std::make_unique<parts>(client, std::move(settings));
  if (!has_servers) return "no cache server is configured: see disdbase.conf and local.conf";
  made->control.bytes_per_second = made->settings.config.bytes_per_second;
  std::string refused = made->locations.configure(made->settings.config);
  if (refused.empty()) parts_ = std::move(made);
  return refused;
}

std::string transfer_service::start() {
  parts &all = *parts_;
  const transfer_config &config = all.settings.config;
  // The hooks run on the server's thread, and hold for as long as the parts live.
  all.server = std::make_unique<transfer_server>(
      server_hooks{.download = [&all](download_order what) { all.order(std::move(what)); },
                   .queued =
                       [&all] {
                         all.workers.wake();
                         all.keeper.inserted();
                       },
                   .status = [&all] { return status_json(all.report()); }});
  // Before the server, as orders may come at once.
  all.downloads.start(config.downloads, config.wait);
  std::string deaf = all.server->start(config.socket);
  if (!deaf.empty()) return deaf;
  all.workers.start(for_workers(all.settings));
  all.keeper.start(for_keeper(all.settings));
  return "";
}

std::vector<std::string> transfer_service::reload(settings_reading reading) {
  if (!reading.settings) return {reading.error + "; the configuration stays as it was"};
  service_settings now = std::move(*reading.settings);
  const service_settings &old = parts_->settings;
  std::vector<std::string> lines;
  // Queues, socket, threads and folders were set up with these.
  keep("the id of the node", old.config.node, now.config.node, lines);
  keep("TRANSFER_SOCKET", old.config.socket, now.config.socket, lines);
  keep("TRANSFER_UPLOADS", old.config.uploads, now.config.uploads, lines);
  keep("TRANSFER_DOWNLOADS", old.config.downloads, now.config.downloads, lines);
  keep("TRANSFER_WAIT", old.config.wait, now.config.wait, lines);
  keep("STORAGE_CACHE_D", old.cache, now.cache, lines);
  keep("STORAGE_TRANSFERIN_D", old.transfer_in, now.transfer_in, lines);
  keep("STORAGE_TRANSFEROUT_D", old.transfer_out, now.transfer_out, lines);

  // The only step that can fail, so it comes before anything changes.
  const std::string refused = parts_->locations.configure(now.config);
  if (!refused.empty()) return {refused + "; the configuration stays as it was"};
  parts_->settings = std::move(now);
  parts_->control.bytes_per_second = parts_->settings.config.bytes_per_second;
  parts_->workers.reconfigure(for_workers(parts_->settings));
  parts_->keeper.reconfigure(for_keeper(parts_->settings));
  parts_->workers.wake();
  return lines;
}

void transfer_service::stop() {
  if (!parts_) return;
  // Ends running transfers, so that no part waits for a store.
  parts_->control.stop = true;
  // The server goes last: hosts learn through it of the downloads that end here.
  parts_->keeper.stop();
  parts_->workers.stop();
  parts_->downloads.stop();
  if (parts_->server) parts_->server->stop();
  parts_.reset();
}

const std::string &transfer_service::metrics_file() const {
  return parts_->settings.config.metrics_file;
}

service_report transfer_service::report() const {
  return parts_->report();
}
