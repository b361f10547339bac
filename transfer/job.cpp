// What jobs share: calls to the store that are tried again, and what an outcome means for a member.
#include "transfer/job.h"

#include <cstring>

#include "main/storage/names.h"

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
    default:
      return {job_end::settled};
  }
}

job_result failure_of(const s3_answer &answer) {
  std::string reason = answer.text.empty() ? answer.code : answer.text;
  if (reason.empty()) reason = "status " + std::to_string(answer.status);
  switch (answer.outcome) {
    case s3_outcome::refused:
    case s3_outcome::not_found:
      return {job_end::parked, reason};
    case s3_outcome::local_error:
      return {job_end::parked,
              "the file cannot be read: " + std::string(std::strerror(answer.error))};
    default:
      return {job_end::retry, reason};
  }
}

bool may_follow(const s3_answer &answer) {
  return answer.outcome == s3_outcome::unclear || answer.outcome == s3_outcome::stopped ||
         answer.outcome == s3_outcome::damaged || answer.status >= 500;
}

std::string path_in_cache(const worker_settings &settings, const std::string &key) {
  // Names that begin with a dot are this service's own.
  const bool is_safe =
      is_object_key(key) && !key.starts_with('.') && key.find("/.") == std::string::npos;
  return is_safe ? settings.cache + "/main/" + key : std::string();
}
