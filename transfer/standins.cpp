// Stands in for parts that are not merged yet; goes with the last of them.
#include "main/transfer/config.h"
#include "platform/s3/client.h"
#include "platform/velkan/velkan.h"
#include "transfer/downloads.h"
#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/receipt.h"
#include "transfer/server.h"
#include "transfer/uploads.h"

#define STAND_IN __attribute__((weak))

class s3_client::connection {};
STAND_IN s3_client::~s3_client() = default;

class transfer_downloads::engine {};
STAND_IN transfer_downloads::transfer_downloads(transfer_queue &, transfer_locations &,
                                                transfer_state &, s3_control &) {}
STAND_IN transfer_downloads::~transfer_downloads() = default;
STAND_IN void transfer_downloads::start(int, int) {}
STAND_IN void transfer_downloads::order(download_order) {}
STAND_IN void transfer_downloads::stop() {}

struct transfer_locations::place {};
STAND_IN transfer_locations::transfer_locations(s3_control &control) : control_(control) {
  (void)control_;
}
STAND_IN std::string transfer_locations::configure(const transfer_config &) {
  return "";
}
STAND_IN std::vector<location_report> transfer_locations::report() const {
  return {};
}

STAND_IN transfer_queue::transfer_queue(vk_client *client, std::string node)
    : client_(client, vk_client_destroy), node_(std::move(node)) {}
STAND_IN transfer_queue::~transfer_queue() = default;
STAND_IN std::optional<queue_summary> transfer_queue::summary() {
  return queue_summary{};
}
STAND_IN std::optional<std::string> transfer_queue::dangerous_policy() {
  return "";
}

class transfer_server::engine {};
STAND_IN transfer_server::transfer_server(server_hooks) {}
STAND_IN transfer_server::~transfer_server() = default;
STAND_IN std::string transfer_server::start(const std::string &) {
  return "";
}
STAND_IN void transfer_server::stop() {}

class transfer_workers::engine {};
STAND_IN transfer_workers::transfer_workers(transfer_queue &, transfer_locations &,
                                            transfer_state &, s3_control &) {}
STAND_IN transfer_workers::~transfer_workers() = default;
STAND_IN void transfer_workers::start(worker_settings) {}
STAND_IN void transfer_workers::reconfigure(worker_settings) {}
STAND_IN void transfer_workers::wake() {}
STAND_IN void transfer_workers::stop() {}
STAND_IN std::vector<parked_member> transfer_workers::parked() const {
  return {};
}
STAND_IN bool transfer_workers::idle() const {
  return true;
}

STAND_IN transfer_reading read_transfer_config() {
  transfer_config config;
  config.node = "n1";
  return {.config = config, .error = ""};
}
