// The parts of the running service, and the order in which they start and stop.
#ifndef TRANSFER_SERVICE_H
#define TRANSFER_SERVICE_H

#include <memory>
#include <string>
#include <vector>

#include "transfer/settings.h"
#include "transfer/status.h"

// Used by the main thread, which calls `configure`, `start`, then the others, and `stop` last.
class transfer_service {
 public:
  transfer_service();
  transfer_service(const transfer_service &) = delete;
  transfer_service &operator=(const transfer_service &) = delete;
  ~transfer_service();  // as stop()

  // Takes the settings and the keys. Empty, or one line: what is wrong with them.
  std::string configure(service_settings settings);
  // Starts all parts of a configured service. Empty, or one line: why it cannot serve.
  std::string start();
  // Takes keys and configuration anew. Lines for the log: what is wrong, then everything stays as
  // it was, or what needs a restart to change.
  std::vector<std::string> reload(settings_reading reading);
  // Ends within seconds; what was under way is taken up by the next start.
  void stop();

  // Where metrics are written, by the configuration that holds; empty for nowhere.
  const std::string &metrics_file() const;
  // Asks the DisDB, so it may take some seconds.
  service_report report() const;

 private:
  struct parts;
  std::unique_ptr<parts> parts_;
};

#endif
