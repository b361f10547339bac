// What the service does every few seconds: watchdog, metrics, log lines.
// On the main thread; asks the other parts and changes none of them.
#include "transfer/routine.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/base/diagnostics.h"
#include "transfer/metrics.h"
#include "transfer/notify.h"

namespace {

constexpr std::chrono::seconds report_interval{15};
// A long queue takes the DisDB a while to count: at most this part of its time goes into that.
constexpr int report_share = 20;

}  // namespace

service_routine::service_routine(transfer_service &service, std::string metrics_file)
    : service_(service),
      metrics_file_(std::move(metrics_file)),
      alive_interval_(alive_interval(report_interval)),
      alive_due_(clock::now()),
      report_due_(clock::now()) {}

std::chrono::milliseconds service_routine::pause() const {
  const auto left = std::min(alive_due_, report_due_) - clock::now();
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(left), std::chrono::milliseconds(0));
}

void service_routine::run() {
  const clock::time_point begin = clock::now();
  if (begin >= report_due_) {
    report();
    const clock::time_point end = clock::now();
    // From its end: a slow report must not follow on itself.
    report_due_ = end + std::max<clock::duration>(report_interval, (end - begin) * report_share);
  }
  // Last: if a part hangs with a lock, the report does not end, and the manager notices.
  if (clock::now() >= alive_due_) {
    notify_alive();
    alive_due_ = clock::now() + alive_interval_;
  }
}

void service_routine::report() {
  // One report for log, manager and metrics, so that they agree.
  const service_report now = service_.report();
  journal_.tell(now);
  notify_status(status_line(now));
  if (metrics_file_.empty()) return;
  const int error = write_metrics(metrics_file_, metrics_text(now));
  if (std::exchange(metrics_error_, error) != error && error != 0) {
    QX_LOG(FR_LOG_WARNING, "Cannot write the metrics to %s: %s.", metrics_file_.c_str(),
           std::strerror(error));
  }
}

void service_routine::reload() {
  notify_reloading();
  settings_reading reading = read_settings();
  // A mistake is logged, and the service goes on with what it has.
  for (const std::string &line : service_.reload(std::move(reading))) {
    QX_LOG(FR_LOG_WARNING, "Reloading: %s.", line.c_str());
  }
  metrics_file_ = service_.metrics_file();
  QX_LOG(FR_LOG_NOTICE, "Reloaded.");
  notify_ready("reloaded");
}
