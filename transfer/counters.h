// The counters of the service and their names, in the order in which they are shown.
#ifndef TRANSFER_COUNTERS_H
#define TRANSFER_COUNTERS_H

#include "transfer/state.h"

// One row for each counter: JSON has the bare name, Prometheus adds a prefix and "_total".
struct counter_name {
  const char *name;
  const char *help;
  std::atomic<std::uint64_t> transfer_counters::*counter;
};

// A new counter is a member of `transfer_counters` and a row here; no other code names it.
inline constexpr counter_name counter_names[] = {
    {"uploads", "Files stored in the object store.", &transfer_counters::uploads},
    {"upload_bytes", "Bytes of the files stored.", &transfer_counters::upload_bytes},
    {"upload_failures", "Tries to store a file that failed.", &transfer_counters::upload_failures},
    {"deletes", "Deletions worked off.", &transfer_counters::deletes},
    {"delete_failures", "Tries to delete that failed.", &transfer_counters::delete_failures},
    {"downloads", "Objects fetched for hosts.", &transfer_counters::downloads},
    {"download_bytes", "Bytes of the objects fetched.", &transfer_counters::download_bytes},
    {"download_failures", "Orders of hosts that failed.", &transfer_counters::download_failures},
    {"evicted", "Files removed from the cache.", &transfer_counters::evicted},
    {"evicted_bytes", "Bytes of the files removed from the cache.",
     &transfer_counters::evicted_bytes},
    {"queued_again", "Files found unqueued and not stored.", &transfer_counters::queued_again},
    {"swept", "Leftovers removed.", &transfer_counters::swept},
};

#endif
