// Works off the upload queue of this node and the delete queue of all, with threads of its own.
#ifndef TRANSFER_UPLOADS_H
#define TRANSFER_UPLOADS_H

#include <memory>
#include <string>
#include <vector>

#include "main/transfer/config.h"
#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/state.h"

// A job keeps the settings that it began with.
struct worker_settings {
  transfer_config config;
  std::string cache;          // directory; the files lie in "<cache>/main/<key>"
  int look_interval = 120;    // seconds between looks at an idle queue
  int unclear_window = 3600;  // seconds in which a transfer of unclear end may still take effect
  int deletions_kept = 7 * 86'400;  // seconds for which uploads and caches meet a deletion
};

// Safe from several threads. Owns the feeder and the threads that it feeds.
class transfer_workers {
 public:
  // All must live longer.
  transfer_workers(transfer_queue &queue, transfer_locations &locations, transfer_state &state,
                   s3_control &control);
  transfer_workers(const transfer_workers &) = delete;
  transfer_workers &operator=(const transfer_workers &) = delete;
  ~transfer_workers();  // as stop()

  // One thread for each upload at once, four for deletions, one each for feeder and sweep.
  void start(worker_settings settings);
  // New settings, without ending what runs. What was put aside is tried again at once.
  void reconfigure(worker_settings settings);
  // Something was queued: look at once.
  void wake();
  // Ends within seconds; `control.stop` is up by then.
  void stop();

  std::vector<parked_member> parked() const;  // at most a thousand, oldest first
  std::size_t parked_count() const;           // all of them
  std::size_t waiting() const;                // members that failed, and are tried again soon
  // Whether nothing of this node was queued, as just read, or is running.
  bool idle(const queue_summary &queued) const;

 private:
  class engine;
  std::unique_ptr<engine> engine_;
};

#endif
