// What is asked about the queues beside working them off.
// Reads the DisDB and changes nothing.
#include "transfer/queue_names.h"
#include "transfer/scripts.h"

namespace {

constexpr long places_counted = 10'000;  // at once

const queue_script count_script(std::string(is_of_text) + count_text);

double number_or_zero(const redisReply &pair) {
  if (pair.type != REDIS_REPLY_ARRAY || pair.elements < 2) return 0;
  return queue_entry{"", std::string(pair.element[1]->str, pair.element[1]->len)}.queued_at();
}

}  // namespace

bool transfer_queue::ask(std::initializer_list<std::string_view> words, vk_reply &reply) {
  const std::vector<std::string_view> list(words);
  return vk_run(client_.get(), list, reply) == VK_OK;
}

bool transfer_queue::count_own(queue_kind kind, long &count, double &oldest) {
  const bool is_uploads = kind == queue_kind::uploads;
  // In pieces, as one long script would stop the server for everybody.
  for (long cursor = 0; cursor >= 0;) {
    vk_reply part;
    const std::string last = std::to_string(cursor + places_counted - 1);
    const bool answered = run(count_script, {is_uploads ? upload_queue : delete_queue},
                              {std::to_string(cursor), last, node_, is_uploads ? "0" : "2"}, part);
    if (!answered || part->type != REDIS_REPLY_ARRAY || part->elements != 3) return false;
    cursor = static_cast<long>(part->element[0]->integer);
    const redisReply &first = *part->element[2];
    // The set is sorted by time: the first piece with a member has the oldest.
    if (count == 0) oldest = queue_entry{"", std::string(first.str, first.len)}.queued_at();
    count += static_cast<long>(part->element[1]->integer);
  }
  return true;
}

std::optional<queue_summary> transfer_queue::summary() {
  queue_summary result;
  double own_delete = 0;
  vk_reply all, deletes, oldest_delete, oldest;
  if (!count_own(queue_kind::uploads, result.uploads, result.oldest_upload) ||
      !count_own(queue_kind::deletes, result.own_deletes, own_delete) ||
      !ask({"ZCARD", upload_queue}, all) || !ask({"ZCARD", delete_queue}, deletes) ||
      !ask({"ZRANGE", delete_queue, "0", "0", "WITHSCORES"}, oldest_delete) ||
      !ask({"ZRANGE", upload_queue, "0", "0", "WITHSCORES"}, oldest)) {
    return std::nullopt;
  }
  result.all_uploads = static_cast<long>(all->integer);
  result.deletes = static_cast<long>(deletes->integer);
  result.oldest_delete = number_or_zero(*oldest_delete);
  result.oldest_of_all = number_or_zero(*oldest);
  if (oldest->elements > 0) {
    result.oldest_member.assign(oldest->element[0]->str, oldest->element[0]->len);
  }
  return result;
}

std::optional<double> transfer_queue::score_of(std::string_view set, const std::string &member) {
  vk_reply reply;
  if (!ask({"ZSCORE", set, member}, reply)) return std::nullopt;
  // No score is 0: they are times of today.
  if (reply->type == REDIS_REPLY_NIL) return 0;
  return queue_entry{"", std::string(reply->str, reply->len)}.queued_at();
}

std::optional<bool> transfer_queue::is_queued(std::string_view location_text,
                                              std::string_view key) {
  vk_reply reply;
  if (!ask({"ZSCORE", upload_queue, std::string(location_text) + ":" + std::string(key)}, reply)) {
    return std::nullopt;
  }
  return reply->type != REDIS_REPLY_NIL;
}

std::optional<bool> transfer_queue::is_claimed(std::string_view location, std::string_view key) {
  const upload_names names({std::string(location), node_, std::string(key)});
  vk_reply reply;
  if (!ask({"EXISTS", names.claim}, reply)) return std::nullopt;
  return reply->integer != 0;
}

std::optional<double> transfer_queue::deleted_at(const upload_member &member) {
  const upload_names names(member);
  const auto itself = score_of(deletions, names.deletion);
  const auto prefix = score_of(deletions, names.prefix_deletion);
  if (!itself || !prefix) return std::nullopt;
  return std::max(*itself, *prefix);
}

std::optional<std::string> transfer_queue::dangerous_policy() {
  vk_reply limit, policy;
  if (!ask({"CONFIG", "GET", "maxmemory"}, limit) ||
      !ask({"CONFIG", "GET", "maxmemory-policy"}, policy) || limit->elements != 2 ||
      policy->elements != 2) {
    return std::nullopt;
  }
  const std::string_view bytes(limit->element[1]->str, limit->element[1]->len);
  const std::string name(policy->element[1]->str, policy->element[1]->len);
  // Policies that evict only what has a time to live take claims and marks of prefixes, without
  // which an object can be lost.
  return bytes != "0" && name != "noeviction" ? name : std::string();
}
