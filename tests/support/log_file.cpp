// Logs to a file instead of syslog, if a test names one.
#include <cstdio>
#include <cstdlib>

#include <spoolcap/log.h>
#include "tests/support/paths_sandbox.h"

namespace {

void append(const fr_log_record *record, void *file) {
  std::fprintf(static_cast<FILE *>(file), "%d %s\n", record->priority, record->text);
}

[[maybe_unused]] const bool taken = [] {
  const char *name = std::getenv(support::log_variable);
  FILE *file = name != nullptr ? std::fopen(name, "ae") : nullptr;
  if (file != nullptr) fr_log_set_sink(append, file);
  return file != nullptr;
}();

}  // namespace
