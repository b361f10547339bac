// The single trials of `--check`, and how their outcomes are printed.
#ifndef TRANSFER_PROBE_H
#define TRANSFER_PROBE_H

#include <string>

#include "transfer/settings.h"

// Prints one line for each thing.
class check_report {
 public:
  // A note is no fault: it asks for a look and leaves the status at 0.
  void good(const std::string &what, const std::string &detail);
  void note(const std::string &what, const std::string &detail);
  // `detail` says what is wrong and what to do.
  void wrong(const std::string &what, const std::string &detail);
  bool all_good() const { return all_good_; }

 private:
  bool all_good_ = true;
};

// Each prints what it finds, and leaves nothing behind that it made.
void check_folders(const service_settings &settings, check_report &report);
void check_cache_server(const transfer_config &config, check_report &report);
// Keys, each location, and the clock as the stores see it.
void check_locations(const transfer_config &config, check_report &report);

#endif
