// Runs the steps of the queue protocol.
// Called from every thread; all changes of the DisDB are the scripts of scripts.h.
#include "transfer/queue.h"

#include <openssl/sha.h>
#include <sys/random.h>

#include <chrono>

#include "platform/s3/answer.h"
#include "platform/s3/client.h"
#include "transfer/queue_names.h"
#include "transfer/scripts.h"

namespace {

// What one script goes through; the server does nothing else meanwhile.
constexpr long places_in_page = 4000;
constexpr long most_in_page = 1000;
// For a file that stays queued for longer nothing more is remembered: the set would grow without
// end.
constexpr double longest_kept = 30 * 86'400.0;  // seconds
// Four times as long as between two renewals, so one that fails costs nothing.
constexpr std::string_view claim_milliseconds = "60000";
// Longer than an answer of a store is waited for.
constexpr std::string_view mark_milliseconds = "900000";

// Built before main, so that no thread has to.
const queue_script page_script(std::string(is_of_text) + page_text);
const queue_script begin_upload_script(begin_upload_text);
const queue_script end_upload_script(end_upload_text);
const queue_script drop_script(drop_text);
const queue_script leave_script(leave_text);
const queue_script begin_delete_script(begin_delete_text);
const queue_script end_delete_script(end_delete_text);
const queue_script renew_script(renew_text);
const queue_script trim_script(trim_text);
const queue_script queue_again_script(queue_again_text);

// The wall clock: scores are compared between nodes.
double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string_view text_of(const redisReply &reply) {
  return reply.str == nullptr ? std::string_view() : std::string_view(reply.str, reply.len);
}

queue_state state_of(std::string_view word) {
  constexpr struct {
    std::string_view word;
    queue_state state;
  } words[] = {{"unchanged", queue_state::unchanged}, {"renewed", queue_state::renewed},
               {"gone", queue_state::gone},           {"deleted", queue_state::deleted},
               {"contested", queue_state::contested}, {"claimed", queue_state::claimed},
               {"unclear", queue_state::unclear}};
  for (const auto &row : words) {
    if (row.word == word) return row.state;
  }
  // No script gives another word; nothing may be concluded from one.
  return queue_state::down;
}

// After the scripts that begin a job; those that end one have rules of their own.
bool is_held(queue_state state) {
  return state == queue_state::unchanged || state == queue_state::contested ||
         state == queue_state::deleted;
}

// Tells the claims of this process from those of an earlier one on the same node.
std::string random_word() {
  unsigned char bytes[8] = {};
  if (::getrandom(bytes, sizeof bytes, 0) != sizeof bytes) return queue_number(now());
  return s3_hex({reinterpret_cast<const char *>(bytes), sizeof bytes});
}

}  // namespace

queue_script::queue_script(std::string source) : text(std::move(source)) {
  unsigned char bytes[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), bytes);
  digest = s3_hex({reinterpret_cast<const char *>(bytes), sizeof bytes});
}

transfer_queue::transfer_queue(vk_client *client, std::string node)
    : client_(client, vk_client_destroy),
      node_(std::move(node)),
      claim_owner_(node_ + "/"),
      claim_prefix_(claim_owner_ + random_word() + "/") {
  vk_set_patient(client_.get());
}

transfer_queue::~transfer_queue() = default;

bool transfer_queue::run(const queue_script &script, texts keys, texts arguments, vk_reply &reply) {
  const std::string count = std::to_string(keys.size());
  std::vector<std::string_view> words = {"EVALSHA", script.digest, count};
  words.insert(words.end(), keys);
  words.insert(words.end(), arguments);
  int status = vk_run(client_.get(), words, reply);
  // The server was restarted or flushed its scripts: it gets the text again.
  if (status == VK_ERR_REPLY && reply && text_of(*reply).starts_with("NOSCRIPT")) {
    words[0] = "EVAL";
    words[1] = script.text;
    status = vk_run(client_.get(), words, reply);
  }
  return status == VK_OK;
}

queue_state transfer_queue::run_state(const queue_script &script, texts keys, texts arguments) {
  vk_reply reply;
  const bool is_done = run(script, keys, arguments, reply);
  if (reply) {
    const std::lock_guard guard(lock_);
    refusal_ = is_done ? std::string() : s3_one_line(text_of(*reply));
  }
  return is_done ? state_of(text_of(*reply)) : queue_state::down;
}

std::string transfer_queue::refusal() const {
  const std::lock_guard guard(lock_);
  return refusal_;
}

transfer_queue::page transfer_queue::read_page(std::string_view queue, std::string_view node,
                                               long &cursor) {
  vk_reply reply;
  // The last place is included, as ZRANGE has it.
  const bool answered = run(page_script, {queue},
                            {std::to_string(cursor), std::to_string(cursor + places_in_page - 1),
                             node, std::to_string(most_in_page)},
                            reply);
  if (!answered || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) return std::nullopt;
  cursor = static_cast<long>(reply->element[0]->integer);
  const redisReply &found = *reply->element[1];
  std::vector<queue_entry> entries;
  for (size_t i = 0; i + 1 < found.elements; i += 2) {
    entries.push_back(
        {std::string(text_of(*found.element[i])), std::string(text_of(*found.element[i + 1]))});
  }
  return entries;
}

transfer_queue::page transfer_queue::uploads(long &cursor) {
  return read_page(upload_queue, node_, cursor);
}

transfer_queue::page transfer_queue::deletes(long &cursor) {
  return read_page(delete_queue, {}, cursor);
}

std::optional<long> transfer_queue::place_of(queue_kind kind, double time) {
  vk_reply reply;
  // "(" excludes the time itself.
  const std::string before = "(" + queue_number(time);
  const std::string_view words[] = {
      "ZCOUNT", kind == queue_kind::uploads ? upload_queue : delete_queue, "-inf", before};
  if (vk_run(client_.get(), words, reply) != VK_OK) return std::nullopt;
  return static_cast<long>(reply->integer);
}

queue_state transfer_queue::begin_upload(const queue_entry &entry, const upload_member &member) {
  const upload_names names(member);
  const auto value = take_claim(names.claim, entry.score);
  if (!value) return queue_state::claimed;
  // Forgets the claim unless the script has taken it; also when an exception comes.
  forgetting claim{*this, names.claim};
  const queue_state state = run_state(
      begin_upload_script, {upload_queue, deletions, names.claim, names.prefix_claim, unclear_ends},
      {entry.member, entry.score, names.deletion, names.prefix_deletion, *value, claim_owner_,
       claim_milliseconds, names.unclear, queue_number(now())});
  claim.is_wanted = !is_held(state);
  return state;
}

queue_state transfer_queue::end_upload(const queue_entry &entry, const upload_member &member,
                                       int window, transfer_end end) {
  const upload_names names(member);
  forgetting claim{*this, names.claim};
  const queue_state state = run_state(
      end_upload_script,
      {upload_queue, deletions, names.claim, names.prefix_claim, unclear_ends, names.prefix_mark},
      {entry.member, entry.score, names.deletion, names.prefix_deletion, held_claim(names.claim),
       names.unclear, queue_number(now()), end == transfer_end::unclear ? "unclear" : "clear",
       mark_milliseconds, age_of_claim(names.claim), queue_number(now() - window)});
  // The object is still to be removed under the claim, so it is renewed until then.
  claim.is_wanted = state != queue_state::deleted;
  return state;
}

queue_state transfer_queue::drop_upload(const queue_entry &entry, const upload_member &member,
                                        int window) {
  const upload_names names(member);
  const forgetting claim{*this, names.claim};
  // The script for deletions fits: it removes the member unless an unclear end is too young.
  return run_state(end_delete_script, {upload_queue, unclear_ends, names.claim, names.prefix_mark},
                   {entry.member, entry.score, held_claim(names.claim), names.unclear, "key",
                    queue_number(now() - window), mark_milliseconds});
}

// Also when the DisDB does not answer the claim is forgotten here, and runs out there.
queue_state transfer_queue::leave(const std::string &claim, const std::string &unclear_member,
                                  const queue_entry &entry) {
  const forgetting job{*this, claim};
  return run_state(
      leave_script, {claim, unclear_ends, upload_queue},
      {held_claim(claim), unclear_member, queue_number(now()), entry.member, entry.score});
}

void transfer_queue::leave_upload(const queue_entry &entry, const upload_member &member,
                                  transfer_end end) {
  const upload_names names(member);
  leave(names.claim, end == transfer_end::unclear ? names.unclear : std::string(), entry);
}

void transfer_queue::note_unclear_removal(const std::string &location,
                                          const std::vector<std::string> &keys) {
  vk_reply reply;
  std::vector<std::string> words = {"ZADD", std::string(unclear_ends)};
  for (const std::string &key : keys) {
    words.push_back(queue_number(now()));
    words.push_back(upload_names({location, node_, key}).unclear + ":older");
  }
  vk_run(client_.get(), std::vector<std::string_view>(words.begin(), words.end()), reply);
}

queue_state transfer_queue::begin_delete(const queue_entry &entry, const delete_member &member) {
  const delete_names names(member);
  // Also while a job of this process has the key, which is to learn of the deletion.
  const auto value = take_claim(names.claim, entry.score);
  forgetting claim{*this, names.claim, value.has_value()};
  // Only deletions claim a prefix. Which keys an earlier one was at is not known.
  const std::string unclear = member.whole_prefix ? std::string() : names.unclear;
  const queue_state state =
      run_state(begin_delete_script, {delete_queue, deletions, names.claim, unclear_ends},
                {entry.member, entry.score, names.deletion, value.value_or(""), claim_owner_,
                 claim_milliseconds, unclear, queue_number(now())});
  claim.is_wanted &= !is_held(state);
  return state;
}

queue_state transfer_queue::finish_delete(const queue_entry &entry, const delete_member &member,
                                          double oldest) {
  const delete_names names(member);
  const forgetting claim{*this, names.claim};
  return run_state(
      end_delete_script, {delete_queue, unclear_ends, names.claim, names.mark},
      {entry.member, entry.score, held_claim(names.claim), names.unclear,
       member.whole_prefix ? "prefix" : "key", queue_number(oldest), mark_milliseconds});
}

queue_state transfer_queue::end_delete(const queue_entry &entry, const delete_member &member,
                                       int window) {
  return finish_delete(entry, member, now() - window);
}

queue_state transfer_queue::drop_delete(const queue_entry &entry, const delete_member &member) {
  const delete_names names(member);
  const forgetting claim{*this, names.claim};
  return run_state(drop_script, {delete_queue, names.claim},
                   {entry.member, entry.score, held_claim(names.claim)});
}

void transfer_queue::leave_delete(const delete_member &member) {
  leave(delete_names(member).claim, {}, {});
}

queue_state transfer_queue::queue_again(const upload_member &member, double made) {
  const upload_names names(member);
  const std::string text = member.location + "@" + member.node + ":" + member.key;
  return run_state(queue_again_script, {upload_queue, deletions},
                   {text, queue_number(made), names.deletion, names.prefix_deletion});
}

void transfer_queue::renew_claims() {
  std::map<std::string, own_claim> claims;
  {
    const std::lock_guard guard(lock_);
    claims = claims_;
  }
  // One by one, without the lock: workers take and forget claims meanwhile.
  for (const auto &[name, held] : claims) {
    const auto begun = std::chrono::steady_clock::now();
    const queue_state state = run_state(renew_script, {name}, {claim_milliseconds, held.value});
    // The others would wait for the same server in vain; 15 s later is early enough.
    if (state == queue_state::down) return;
    const std::lock_guard guard(lock_);
    const auto claim = claims_.find(name);
    if (claim == claims_.end() || claim->second.value != held.value) continue;
    claim->second.renewed = state == queue_state::unchanged ? begun : decltype(begun)();
  }
}

void transfer_queue::trim(int window, int deletions_kept) {
  run_state(trim_script, {upload_queue, deletions, unclear_ends},
            {queue_number(now() - deletions_kept), queue_number(now() - window),
             queue_number(now() - std::max<double>(deletions_kept, longest_kept))});
}
