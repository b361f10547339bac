// Keeps the cache and the transfer folders clean, and notices files that the queue has lost. One
// thread of its own, at low priority. Nothing is removed that is queued, being uploaded, or open in
// any process, and from the cache nothing that the store does not have.
#ifndef TRANSFER_KEEPER_H
#define TRANSFER_KEEPER_H

#include <cstdint>
#include <memory>
#include <string>

#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/state.h"

// From storage.conf and transfer.conf. The keeper takes a copy at the begin of each round.
struct keeper_settings {
  std::string cache;  // directory; the files lie in "<cache>/main/<key>"
  std::string transfer_in;
  std::string transfer_out;     // files lie in "<transfer out>/main"
  int cache_expire = 48;        // hours since the last use
  int trash_expire = 1;         // hours since the last write
  std::int64_t cache_size = 0;  // bytes; 0 for no limit
  int cache_free = 10;          // percent of the file system that stay free
  int upload_interval = 120;    // seconds; after two of them a committed file has long been queued
  int deletions_kept = 7 * 86'400;  // seconds for which the DisDB knows a deletion
  transfer_config config;           // which location a file without a receipt belongs to
};

// For status and metrics. A look that was broken off leaves the one before it.
struct keeper_report {
  std::int64_t cached_files = -1;  // of the last look; -1 before it
  std::int64_t cached_bytes = -1;
  // Expired, once stored, not in the store, and not to be brought back there: kept.
  std::int64_t not_in_store = 0;
  std::int64_t different = 0;  // of which the store has another object that is no older: kept
  double last_look = 0;
  bool is_whole = true;  // false where something did not answer for some file
};

// Safe from several threads; the work is done on the keeper's own.
class cache_keeper {
 public:
  // All must live longer.
  cache_keeper(transfer_queue &queue, transfer_locations &locations, transfer_state &state);
  cache_keeper(const cache_keeper &) = delete;
  cache_keeper &operator=(const cache_keeper &) = delete;
  ~cache_keeper();

  // Begins with a look after a minute. Call once.
  void start(keeper_settings settings);
  // New settings; everything is looked through at once.
  void reconfigure(keeper_settings settings);
  // Something came into the cache: the limits are looked at, now or within seconds.
  void inserted();
  void stop();  // within seconds
  keeper_report report() const;

 private:
  class engine;
  std::unique_ptr<engine> engine_;
};

#endif
