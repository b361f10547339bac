// Decides about one file of the cache: whether it is lost to the queue, may go, or stays.
#ifndef TRANSFER_KEEPER_JUDGE_H
#define TRANSFER_KEEPER_JUDGE_H

#include <atomic>
#include <optional>
#include <string>

#include "transfer/cache_file.h"
#include "transfer/keeper.h"

// What the parts of the keeper share.
// Borrowed from the service, which outlives the keeper.
struct keeper_parts {
  transfer_queue &queue;
  transfer_locations &locations;
  transfer_state &state;
  const std::atomic<bool> &stop;
};

// What the look is after; the file must pass the same tests for both.
enum class wanted {
  receipt,  // that the store has it, or that it is queued again
  removal   // beside that, its removal when the store has it
};

// Only `removed` changes the cache. What is not known for sure is `left` or `untold`.
enum class judgement {
  left,    // as it was: queued, in use, or not everything can be known
  untold,  // as it was, since DisDB or store did not answer
  kept,    // the store has it
  removed,
  queued_again,  // neither the queue nor the store had it
  different,     // the store has another object there that is no older; kept
  lost           // the store had it once, has not any more, and is not to get it back; kept
};

// `young`: a host may be about to queue it. `key` is the object key.
judgement judge_file(const keeper_parts &parts, const keeper_settings &settings, cache_file &file,
                     const std::string &key, wanted what, bool young);
// Removes a file that was deleted since it was made, perhaps on another node. The store is not
// asked.
judgement judge_deletion(const keeper_parts &parts, const keeper_settings &settings,
                         cache_file &file, const std::string &key);

#endif
