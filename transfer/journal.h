// Log lines about what an operator must act upon, one for each change.
#ifndef TRANSFER_JOURNAL_H
#define TRANSFER_JOURNAL_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "transfer/status.h"

// Used by the main thread only. It remembers the last report, so that nothing is said twice.
class state_journal {
 public:
  // Logs what is different from the last report.
  void tell(const service_report &report);

 private:
  bool answers_ = true;
  bool refuses_ = false;
  std::string policy_;
  std::size_t parked_ = 0;
  std::int64_t not_in_store_ = 0;
};

#endif
