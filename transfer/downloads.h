// Fetches objects for the hosts of this node, with threads of its own.
#ifndef TRANSFER_DOWNLOADS_H
#define TRANSFER_DOWNLOADS_H

#include <functional>
#include <memory>
#include <string>

#include "platform/base/owner.h"
#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/state.h"

// What one host wants. The target is the host's file, and only its descriptor is here.
struct download_order {
  std::string location_text;  // "<location>@<node>" of the row
  std::string key;
  unique_fd target;  // a regular file, empty, open for writing
  // Called exactly once, from any thread: whether the whole object is in the target.
  std::function<void(bool)> done;
  // Whether the host is still there; asked under a lock. Empty for always.
  std::function<bool()> is_wanted = {};
};

// Safe from several threads. Orders of one object share one transfer; each has its own target.
class transfer_downloads {
 public:
  transfer_downloads(transfer_queue &queue, transfer_locations &locations, transfer_state &state,
                     s3_control &control);
  transfer_downloads(const transfer_downloads &) = delete;
  transfer_downloads &operator=(const transfer_downloads &) = delete;
  ~transfer_downloads();

  // `at_once` transfers; `wait` seconds for an object whose upload is still queued.
  void start(int at_once, int wait);
  // Never waits. A refusal calls `done`, perhaps before this returns.
  void order(download_order what);
  // Ends all that wait or run as failed; `control.stop` is up by then.
  void stop();

 private:
  class engine;
  std::unique_ptr<engine> engine_;
};

#endif
