// What the main thread does beside waiting for signals. It notifies the service manager that the
// service lives, writes the metrics, and logs what changed.
#ifndef TRANSFER_ROUTINE_H
#define TRANSFER_ROUTINE_H

#include <chrono>
#include <string>

#include "transfer/journal.h"
#include "transfer/service.h"

// Used by the main thread only.
class service_routine {
 public:
  // `service` runs and lives longer.
  service_routine(transfer_service &service, std::string metrics_file);

  // How long nothing is due.
  std::chrono::milliseconds pause() const;
  void run();     // what is due
  void reload();  // keys and configuration

 private:
  using clock = std::chrono::steady_clock;
  // Log, manager and metrics; asks the DisDB, so it may take seconds.
  void report();

  transfer_service &service_;
  std::string metrics_file_;
  state_journal journal_;
  const std::chrono::milliseconds alive_interval_;
  clock::time_point alive_due_;
  clock::time_point report_due_;
  // Of the last try to write the metrics, so that each error is logged once.
  int metrics_error_ = 0;
};

#endif
