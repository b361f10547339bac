#include "tests/support/transfer_daemon.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <spoolcap/zarn_str.h>
#include "main/transfer/wire.h"
#include "platform/base/deadline.h"
#include "tests/support/object_store.h"
#include "tests/support/paths_sandbox.h"

namespace support {

transfer_daemon::transfer_daemon(sandbox &box, const s3_place &place, const std::string &more)
    : box_(box), manager_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  const auto address = socket_address(box.path("notify"));
  if (!address ||
      ::bind(manager_.get(), reinterpret_cast<const sockaddr *>(&*address), sizeof *address) != 0) {
    throw std::runtime_error("transfer_daemon: no socket");
  }
  box.write_file("etc/quorvexnode/nodeid", "n1\n");
  box.write_file("etc/quorvex/storage.conf",
                 "STORAGE_SYSTEM s3\nS3_UPL_INTERVAL 1\n"
                 "STORAGE_CACHE_D " +
                     box.path("cache") + "\nSTORAGE_TRANSFERIN_D " + box.path("in") +
                     "\nSTORAGE_TRANSFEROUT_D " + box.path("out") + "\n");
  box.write_file("etc/quorvex/transfer.conf", "TRANSFER_LOCATION eu " + place.endpoint + " " +
                                                  place.region + " " + place.bucket +
                                                  "\nTRANSFER_DEFAULT eu\n" + more);
  const s3_credentials keys = store_credentials();
  box.write_file("etc/quorvex/transfer.keys", "[eu]\naws_access_key_id = " + keys.access_key +
                                                  "\naws_secret_access_key = " + keys.secret_key +
                                                  "\n");
  std::filesystem::permissions(box.path("etc/quorvex/transfer.keys"), std::filesystem::perms(0600));
}

std::unique_ptr<background_process> transfer_daemon::start_with(
    const std::vector<std::string> &arguments) const {
  std::vector<std::string> argv = {SPOOLCAP_TRANSFER_SANDBOX_BINARY};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return std::make_unique<background_process>(
      argv, process_options{.environment = {{paths_root_variable, box_.root().string()},
                                            {"NOTIFY_SOCKET", box_.path("notify")},
                                            {"WATCHDOG_USEC", "10000000"}}});
}

process_result transfer_daemon::run(const std::vector<std::string> &arguments) const {
  return start_with(arguments)->wait(std::chrono::seconds(90)).value();
}

bool transfer_daemon::start() {
  process_ = start_with({});
  const deadline limit(20);
  while (process_->running() && !limit.passed()) {
    const deadline soon(0.1F);
    if (!wait_ready(manager_.get(), POLLIN, &soon)) continue;
    if (told("READY=1")) return true;
  }
  if (!process_->running()) {
    const process_result result = process_->wait(std::chrono::seconds(1)).value();
    std::fprintf(stderr, "the service ended with %d: %s\n", result.status, result.err.c_str());
  }
  return false;
}

process_result transfer_daemon::stop(int signal) {
  process_->kill(signal);
  return process_->wait(std::chrono::seconds(30)).value();
}

std::optional<std::string> transfer_daemon::told(std::string_view begin) {
  const deadline limit(20);
  while (wait_ready(manager_.get(), POLLIN, &limit)) {
    char message[1024];
    const ssize_t length = ::recv(manager_.get(), message, sizeof message, 0);
    const std::string_view text(message, length < 0 ? 0 : static_cast<std::size_t>(length));
    if (text.starts_with(begin)) return std::string(text);
  }
  return std::nullopt;
}

void transfer_daemon::commit(const std::string &key, std::string_view content) {
  box_.write_file(cached(key), content);
  box_.redis({"ZADD", "storage:upqueue:s3:main", std::to_string(qx_get_tstamp()), "eu@n1:" + key});
}

}  // namespace support
