// What this process knows of the claims that its jobs hold; the DisDB has the claims themselves.
// In memory only, under the lock of the queue.
#include "transfer/queue.h"
#include "transfer/queue_names.h"

namespace {

// So long a claim may go without being renewed, and still outlives the request that begins then.
constexpr std::chrono::seconds claim_is_sure{30};

}  // namespace

std::optional<std::string> transfer_queue::take_claim(const std::string &name,
                                                      const std::string &score) {
  const std::lock_guard guard(lock_);
  // Another thread of this process has the key: no need to ask the DisDB.
  if (claims_.contains(name)) return std::nullopt;
  const std::string value = claim_prefix_ + std::to_string(++claim_count_) + "/" + score;
  const auto now = std::chrono::steady_clock::now();
  claims_.emplace(name, own_claim{value, now, now});
  return value;
}

std::string transfer_queue::held_claim(const std::string &name) const {
  const std::lock_guard guard(lock_);
  const auto claim = claims_.find(name);
  return claim == claims_.end() ? std::string() : claim->second.value;
}

std::string transfer_queue::age_of_claim(const std::string &name) const {
  const std::lock_guard guard(lock_);
  const auto claim = claims_.find(name);
  if (claim == claims_.end()) return "0";
  // Compared with the life of a mark, which the server counts down by itself.
  const auto age = std::chrono::steady_clock::now() - claim->second.since;
  return std::to_string(std::chrono::ceil<std::chrono::milliseconds>(age).count());
}

bool transfer_queue::is_sure(const std::string &name) const {
  const std::lock_guard guard(lock_);
  const auto claim = claims_.find(name);
  return claim != claims_.end() &&
         std::chrono::steady_clock::now() - claim->second.renewed < claim_is_sure;
}

bool transfer_queue::holds(const upload_member &member) const {
  return is_sure(upload_names(member).claim);
}

bool transfer_queue::holds(const delete_member &member) const {
  return is_sure(delete_names(member).claim);
}

void transfer_queue::forget_claim(const std::string &name) {
  const std::lock_guard guard(lock_);
  claims_.erase(name);
}
