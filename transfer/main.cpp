// spoolcap-transfer: carries stored files between this node and the object store.
// Parses the command line, and serves or runs one of the other commands.
#include <unistd.h>

#include <cstdio>

#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "transfer/check.h"
#include "transfer/commands.h"
#include "transfer/notify.h"
#include "transfer/options.h"
#include "transfer/process.h"
#include "transfer/routine.h"
#include "transfer/service.h"

namespace {

enum exit_status { status_ok = 0, status_failed = 1, status_wrong = 2 };

int refuse(exit_status status, const std::string &why) {
  std::fprintf(stderr, "spoolcap-transfer: %s\n", why.c_str());
  return status;
}

int serve(service_settings settings) {
  // The order matters. Limits and masks hold for threads that start later. The log goes to standard
  // error before anybody writes to it. Signals are blocked before the first thread.
  set_up_process();
  log_to_standard_error();
  signal_watch signals;
  transfer_service service;
  // Copied, as the service takes the settings.
  const std::string metrics_file = settings.config.metrics_file;
  const std::string wrong = service.configure(std::move(settings));
  if (!wrong.empty()) return refuse(status_wrong, wrong);
  const std::string refused = service.start();
  if (!refused.empty()) return refuse(status_failed, refused);
  service_routine routine(service, metrics_file);
  // Only now: whatever depends on the service may connect.
  notify_ready("ready");
  QX_LOG(FR_LOG_NOTICE, "spoolcap-transfer " SPOOLCAP_VERSION " is ready.");
  for (;;) {
    switch (signals.wait(routine.pause())) {
      case process_event::time_passed:
        no_throw([&] { routine.run(); });
        break;
      case process_event::reload:
        no_throw([&] { routine.reload(); });
        break;
      case process_event::stop:
        notify_stopping();
        QX_LOG(FR_LOG_NOTICE, "Stopping.");
        service.stop();
        return status_ok;
    }
  }
}

int run(const transfer_options &options) {
  if (options.task == transfer_task::help) {
    print_usage(stdout);
    return status_ok;
  }
  if (options.task == transfer_task::version) {
    std::puts("spoolcap-transfer " SPOOLCAP_VERSION);
    return status_ok;
  }
  // Checks and questions are harmless as root; files of root's in the cache are not.
  if (options.task == transfer_task::serve && ::geteuid() == 0 && !root_may_serve()) {
    return refuse(status_wrong, "root must not run the service: run it as the user of the hosts");
  }
  settings_reading reading = read_settings();
  if (!reading.settings) return refuse(status_wrong, reading.error);
  const std::string &socket = reading.settings->config.socket;
  switch (options.task) {
    case transfer_task::status:
      return show_status(socket, options.json);
    case transfer_task::check:
      return run_check(*reading.settings);
    case transfer_task::drain:
      return drain(socket, options.seconds);
    default:
      return serve(std::move(*reading.settings));
  }
}

}  // namespace

int main(int argc, char **argv) {
  const auto options = parse_options(argc, const_cast<const char **>(argv));
  if (!options) return status_wrong;
  constexpr int nothing_left = -1;
  const int status = no_throw(nothing_left, [&] { return run(*options); });
  if (status != nothing_left) return status;
  std::fputs("spoolcap-transfer: out of memory or threads\n", stderr);
  return status_failed;
}
