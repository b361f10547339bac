// One object on its way into a file, try by try. Nothing here waits for the next try.
#ifndef TRANSFER_FETCH_H
#define TRANSFER_FETCH_H

#include <chrono>
#include <string>

#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/receipt.h"

using fetch_clock = std::chrono::steady_clock;

// What a try came to.
// `again` means: call `attempt` once more, after the delay.
struct fetch_step {
  enum class kind { done, failed, again } what;
  fetch_clock::duration delay{};  // before the next try
  std::string reason = {};        // of a failure
};

// Used by one thread at a time; it remembers between tries what is in the target so far.
class object_fetch {
 public:
  // `wait` seconds for an object whose upload is still queued.
  object_fetch(transfer_queue &queue, transfer_locations &locations, s3_control &control,
               std::string location_text, std::string key, std::chrono::seconds wait);

  // `target` is the same file each time. After `done` it has the whole object, and the receipt is
  // that of the object.
  fetch_step attempt(int target);
  // The next try counts as the first one, whatever is in the target by now.
  void begin_anew() { begun_ = {}; }
  const receipt &got() const { return got_; }

 private:
  // One request, from the end of what is there.
  fetch_step get(int target);
  // What to do when the store has no such object.
  fetch_step after_absence();
  fetch_step after_trouble(const s3_answer &answer, int target, std::int64_t from);
  // What fails from now on has the full time to come right.
  void note_progress();
  fetch_step later(fetch_clock::duration delay, const std::string &reason) const;
  void compare(s3_answer &answer, int target) const;

  transfer_queue &queue_;
  transfer_locations &locations_;
  s3_control &control_;
  const std::string location_text_, location_, key_;
  const std::chrono::seconds wait_;
  fetch_clock::time_point begun_{};  // of the first try
  // When a try ended that brought something or found its upload queued, or the first began.
  fetch_clock::time_point moved_{};
  fetch_clock::time_point ask_store_at_{};  // while its upload is queued
  std::string etag_;                        // of what the target has the beginning of
  bool is_absent_ = false;  // and nothing is queued: asked once more before that counts
  int failures_ = 0;
  receipt got_;
};

#endif
