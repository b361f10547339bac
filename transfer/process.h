// How the process is set up before its first thread, and the signals that it waits for.
#ifndef TRANSFER_PROCESS_H
#define TRANSFER_PROCESS_H

#include <chrono>

#include "platform/base/owner.h"

// Whether root may run the service. The shipped program says no: files of its making would be out
// of reach for the hosts. The sandboxed one of the tests says yes.
bool root_may_serve();

// Sends log lines to standard error: with their priority for the journal, else with the time.
void log_to_standard_error();

// Permissions of new files, open descriptors, no core files with keys, arenas, stacks of threads.
void set_up_process();

enum class process_event { time_passed, stop, reload };

// Takes SIGTERM, SIGINT and SIGHUP from this thread and all that are started later. A broken pipe
// or lease ends nothing.
class signal_watch {
 public:
  // To be made before the first thread, which inherits what is blocked.
  signal_watch();
  // Waits at most `limit`. Several signals at once come one by one.
  process_event wait(std::chrono::milliseconds limit);

 private:
  unique_fd signals_;
};

#endif
