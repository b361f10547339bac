// What a job works with, and how it ends. A job is one try of one member of a queue.
#ifndef TRANSFER_JOB_H
#define TRANSFER_JOB_H

#include <string>

#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/state.h"
#include "transfer/uploads.h"

// The parts of the service that a job works with. Each is safe from several threads.
struct job_context {
  transfer_queue &queue;
  transfer_locations &locations;
  transfer_state &state;
  s3_control &control;
};

// What the feeder makes of each end is in `work_feeder::ended`.
enum class job_end {
  settled,  // nothing is left to be done for the member as it was read
  renewed,  // the member is there with another score
  held,     // not begun, as the location rests, or not done, as it refuses everything
  down,     // the DisDB does not answer
  claimed,  // another job, or the host that deletes, works on the key; soon again
  retry,    // failed; soon again
  parked,   // failed in a way that trying again cannot mend soon
  waiting   // done, and to be done again when the time of unclear ends is over
};

struct job_result {
  job_end end = job_end::settled;
  std::string reason = {};  // one line, of the last four
};

// What the queue says of a member that is not worked on.
job_result result_of(queue_state state);

// The result of a call that failed.
job_result failure_of(const s3_answer &answer);

// Whether a request that changes something may still take effect after this answer.
bool may_follow(const s3_answer &answer);

// A moment, at random, that grows with the attempts.
void pause_before_repeating(const job_context &context, int attempt);

// Makes a call up to three times, as one failure in many is ordinary. Reports each outcome to the
// location.
template <class Call>
s3_answer call_store(const job_context &context, const transfer_locations::lease &client,
                     bool &uncertain, Call &&call) {
  constexpr int attempts = 3;
  for (int attempt = 1;; ++attempt) {
    s3_answer answer = call();
    const bool is_location_down = client.tell(answer);
    uncertain |= may_follow(answer);
    const bool may_be_mended =
        !answer.retry_after &&
        (answer.outcome == s3_outcome::busy || answer.outcome == s3_outcome::unclear ||
         answer.outcome == s3_outcome::unreachable || answer.outcome == s3_outcome::damaged);
    if (attempt == attempts || is_location_down || !may_be_mended) return answer;
    if (answer.outcome == s3_outcome::busy) pause_before_repeating(context, attempt);
  }
}

// The path of a key in the cache; empty for a key that leads out of it.
std::string path_in_cache(const worker_settings &settings, const std::string &key);

// The answer of a call that was not made: the claim of the job may be another's by now.
s3_answer claim_lost();

// What became of an object that a deletion covers.
enum class object_end {
  removed,  // or it was not there
  kept,     // an upload that is no older brought it
  early,    // its host may still remove its file, or its node decide: to be asked again soon
  failed
};

inline constexpr const char *early_text = "its own node may still have to decide";

// What a deletion is to do with an object of which HEAD gave this; `removed` for an older one.
object_end judge_object(const job_context &context, const worker_settings &settings,
                        const s3_answer &head, const std::string &key, double deleted_at);

// Removes an object unless it is younger than its deletion. `failure` is set after `failed`.
object_end remove_older(const job_context &context, const worker_settings &settings,
                        const transfer_locations::lease &client, const std::string &location,
                        const std::string &key, double deleted_at, s3_answer &failure);

#endif
