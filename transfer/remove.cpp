// Works off one deletion, of an object or of all below a prefix.
// On a worker's thread; changes the store and, by scripts, the queue.
#include "transfer/remove.h"

namespace {

// So much older than the deletion an object of the store's clock must be to go without a look at
// when it was queued.
constexpr double store_clock_error = 3600;

class delete_job {
 public:
  delete_job(const job_context &context, const worker_settings &settings, const queue_entry &entry,
             delete_member member)
      : context_(context),
        settings_(settings),
        entry_(entry),
        member_(std::move(member)),
        deleted_at_(entry.queued_at()) {}
  delete_job(const delete_job &) = delete;
  delete_job &operator=(const delete_job &) = delete;
  // An exception gives the claim back, too; the member stays in the queue.
  ~delete_job() {
    if (is_claimed_) no_throw([this] { context_.queue.leave_delete(member_); });
  }

  job_result run() {
    const auto permit = context_.locations.start(member_.location);
    if (!permit) return {job_end::held};
    const queue_state state = context_.queue.begin_delete(entry_, member_);
    if (state != queue_state::unchanged) return result_of(state);
    is_claimed_ = true;
    // One connection for the whole job; it goes back to the pool with the job.
    client_ = context_.locations.client(member_.location);
    if (!client_) return leave({job_end::held});
    switch (member_.whole_prefix ? remove_all() : remove_one()) {
      case object_end::removed:
        return end(context_.queue.end_delete(entry_, member_, settings_.unclear_window));
      case object_end::kept:
        return end(context_.queue.drop_delete(entry_, member_));
      case object_end::early:
        return leave({job_end::claimed, early_text});
      default:
        return leave(std::move(failure_));
    }
  }

 private:
  job_result leave(job_result result) {
    context_.queue.leave_delete(member_);
    is_claimed_ = false;
    return result;
  }

  job_result end(queue_state state) {
    is_claimed_ = false;
    // Other states mean that the deletion must be repeated, or was done by another node.
    if (state == queue_state::unchanged) ++context_.state.counters.deletes;
    return result_of(state);
  }

  template <class Call>
  s3_answer ask(Call &&call) {
    bool changes_nothing = false;
    return call_store(context_, client_, changes_nothing, std::forward<Call>(call));
  }

  bool fail(const s3_answer &answer) {
    failure_ = failure_of(answer);
    return false;
  }

  object_end remove_one() {
    s3_answer failure;
    const object_end end = remove_older(context_, settings_, client_, member_.location, member_.key,
                                        deleted_at_, failure);
    if (end == object_end::failed) fail(failure);
    return end;
  }

  // Page by page: the token goes on even while the objects before it are removed.
  object_end remove_all() {
    std::string token;
    has_early_ = false;
    do {
      s3_listing listing;
      const s3_answer answer = ask([&] {
        listing = client_->list(member_.key + "/", token);
        return listing.answer;
      });
      if (!answer) return fail(answer), object_end::failed;
      if (!remove_listed(listing.objects)) return object_end::failed;
      token = listing.next;
    } while (!token.empty());
    return has_early_ ? object_end::early : object_end::removed;
  }

  bool remove_listed(const std::vector<s3_listed> &objects) {
    std::vector<std::string> keys;
    for (const s3_listed &object : objects) {
      // Recent objects are asked for one by one; old ones go a thousand at a time.
      if (object.modified > deleted_at_ - store_clock_error) {
        const s3_answer head = ask([&] { return client_->head(object.key); });
        if (head.outcome == s3_outcome::not_found) continue;
        if (!head) return fail(head);
        const object_end end = judge_object(context_, settings_, head, object.key, deleted_at_);
        has_early_ |= end == object_end::early;
        if (end != object_end::removed) continue;
      }
      keys.push_back(object.key);
    }
    // A request without keys would be refused.
    if (keys.empty()) return true;
    s3_removal removal;
    bool uncertain = false;
    const s3_answer answer = call_store(context_, client_, uncertain, [&] {
      if (!context_.queue.holds(member_)) return claim_lost();
      removal = client_->remove(keys);
      return removal.answer;
    });
    if (uncertain) context_.queue.note_unclear_removal(member_.location, keys);
    if (!answer) return fail(answer);
    if (removal.failed.empty()) return true;
    // The listing is made again by the next try, so one reason is enough.
    const s3_failed_key &first = removal.failed.front();
    failure_ = {job_end::retry, std::to_string(removal.failed.size()) +
                                    " objects are refused, the first is " + first.key + ": " +
                                    first.code};
    return false;
  }

  const job_context &context_;
  const worker_settings &settings_;
  const queue_entry &entry_;
  const delete_member member_;
  const double deleted_at_;
  transfer_locations::lease client_;
  job_result failure_;
  bool is_claimed_ = false;
  bool has_early_ = false;  // below the prefix: not decided yet
};

}  // namespace

job_result run_delete(const job_context &context, const worker_settings &settings,
                      const queue_entry &entry) {
  auto member = delete_member::parse(entry.member);
  if (!member) return {job_end::parked, "is not of the form <location>@<node>:<o or r>:<key>"};
  if (!context.locations.is_known(member->location)) {
    return {job_end::parked, "the location " + member->location + " is not configured"};
  }
  return delete_job(context, settings, entry, std::move(*member)).run();
}
