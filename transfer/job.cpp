// What jobs share: calls to the store that are tried again, and what an outcome means for a member.
// On the workers' threads; keeps nothing from one job to the next.
#include "transfer/job.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include <spoolcap/zarn_str.h>
#include "main/storage/names.h"
#include "transfer/jitter.h"

namespace {

// A host removes its file after the deletion was queued. Another host may wake the service, or
// another node be faster, before it has; so long afterwards it has, or was killed.
constexpr double host_takes = 2;
// Its own node knows whether a file is still there. Others leave it the time to be restarted.
constexpr double node_takes = 600;
constexpr const char *not_sent = "NotSent";

}  // namespace

job_result result_of(queue_state state) {
  switch (state) {
    case queue_state::renewed:
      return {job_end::renewed};
    case queue_state::claimed:
      return {job_end::claimed, "another job works on the key"};
    case queue_state::unclear:
      return {job_end::waiting, "an upload whose end was not seen may still take effect"};
    case queue_state::down:
      return {job_end::down};
    // Gone from the queue, or removed from it by this job.
    default:
      return {job_end::settled};
  }
}

job_result failure_of(const s3_answer &answer) {
  std::string reason = answer.text.empty() ? answer.code : answer.text;
  if (reason.empty()) reason = "status " + std::to_string(answer.status);
  // Parked is what a person must mend. All else may come right by itself.
  switch (answer.outcome) {
    case s3_outcome::refused:
    case s3_outcome::not_found:
      // The location is named in its own line, and waits as a whole.
      return {is_about_location(answer) ? job_end::held : job_end::parked, reason};
    case s3_outcome::local_error:
      return {job_end::parked,
              "the file cannot be read: " + std::string(std::strerror(answer.error))};
    default:
      return {job_end::retry, reason};
  }
}

void pause_before_repeating(const job_context &context, int attempt) {
  constexpr double first = 0.2, longest = 2, step = 0.1;
  for (double left = jittered(attempt, first, longest); left > 0 && !context.control.stop;
       left -= step) {
    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(left, step)));
  }
}

bool may_follow(const s3_answer &answer) {
  // Decided before the body was looked at.
  if (answer.code == "SlowDown" || answer.status == 429 || answer.code == not_sent) return false;
  return answer.outcome == s3_outcome::unclear || answer.outcome == s3_outcome::stopped ||
         answer.outcome == s3_outcome::damaged || answer.status >= 500;
}

std::string path_in_cache(const worker_settings &settings, const std::string &key) {
  // Names that begin with a dot are this service's own.
  const bool is_safe =
      is_object_key(key) && !key.starts_with('.') && key.find("/.") == std::string::npos;
  return is_safe ? settings.cache + "/main/" + key : std::string();
}

object_end judge_object(const job_context &context, const worker_settings &settings,
                        const s3_answer &head, const std::string &key, double deleted_at) {
  const auto queued = head.metadata.find("queued");
  // An object that no node of ours stored is as old as can be.
  if (queued == head.metadata.end()) return object_end::removed;
  const double queued_at = queue_entry{"", queued->second}.queued_at();
  if (queued_at > deleted_at) return object_end::kept;
  if (queued_at <= deleted_at - clock_error) return object_end::removed;
  // Within a second, two nodes cannot know which came first: the file is kept. This node knows, as
  // its host removes the file when it deletes.
  const auto node = head.metadata.find("node");
  const bool is_own = node != head.metadata.end() && node->second == context.queue.node();
  const std::string path = path_in_cache(settings, key);
  const bool is_there = !path.empty() && ::access(path.c_str(), F_OK) == 0;
  if (is_own && !is_there) return object_end::removed;
  const double age = qx_get_tstamp() - deleted_at;
  return age > (is_own ? host_takes : node_takes) ? object_end::kept : object_end::early;
}

s3_answer claim_lost() {
  s3_answer answer;
  answer.outcome = s3_outcome::stopped;
  answer.code = not_sent;
  answer.text = "another service may have the key by now";
  return answer;
}

object_end remove_older(const job_context &context, const worker_settings &settings,
                        const transfer_locations::lease &client, const std::string &location,
                        const std::string &key, double deleted_at, s3_answer &failure) {
  bool uncertain = false;
  failure = call_store(context, client, uncertain, [&] { return client->head(key); });
  if (!failure && failure.outcome != s3_outcome::not_found) return object_end::failed;
  if (failure) {
    const object_end end = judge_object(context, settings, failure, key, deleted_at);
    if (end != object_end::removed) return end;
  }
  // Also for what is not there: only this answer distinguishes a missing object from a missing
  // bucket.
  const upload_member member{location, context.queue.node(), key};
  uncertain = false;
  failure = call_store(context, client, uncertain, [&] {
    return context.queue.holds(member) ? client->remove(key) : claim_lost();
  });
  if (uncertain) context.queue.note_unclear_removal(location, {key});
  return failure ? object_end::removed : object_end::failed;
}
