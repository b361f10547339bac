// Reads the queues and hands their members to the workers, oldest first, without ever holding more
// than some hundreds of them.
//
// A look goes through a whole queue, page by page, as the workers need more. It begins when the
// interval is over, and when there is a reason to believe that there is work: a member was skipped
// or came back, or a location is up again. When something was queued just now, a look at the end of
// the queue is enough.
#ifndef TRANSFER_FEEDER_H
#define TRANSFER_FEEDER_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>

#include "transfer/backoff.h"

// The threads: `run` on one of its own, `next` and `ended` on each worker, all others on any.
class work_feeder {
 public:
  explicit work_feeder(const job_context &context) : context_(context) {}
  work_feeder(const work_feeder &) = delete;
  work_feeder &operator=(const work_feeder &) = delete;

  // Also makes all members due that were put aside.
  void configure(const worker_settings &settings);
  // Something was queued, or may have been: the end of both queues is looked at.
  void wake();
  // Ends `run` and each `next`. What was handed out is still to be reported.
  void stop();
  void run();  // the body of the feeder's thread

  // The next member of a queue for a worker, which must report its result. Nothing at the end.
  std::optional<work_item> next(queue_kind kind);
  // Settles, puts aside or frees the member, by the job's end.
  void ended(const work_item &item, const job_result &result);

  std::vector<parked_member> parked(size_t most) const;
  size_t parked_count() const;
  size_t waiting() const;   // members that failed, and are tried again soon
  bool is_working() const;  // members are ready, or are worked on

 private:
  using clock = std::chrono::steady_clock;

  // One queue, and the look through it.
  struct lane {
    queue_kind kind;
    std::deque<queue_entry> ready{};
    // Looks skip members in here, so no two workers get one.
    std::set<std::string> taken{};  // ready or worked on
    std::condition_variable filled{};
    long cursor = -1;  // -1 between looks
    long removed = 0;  // of what the look has passed; the rest moved to the front by as much
    // The look has handed out or dropped something, so another one is worth it soon.
    bool has_found = false;
    // The look was begun in the last minute's members, as something was just queued.
    bool is_at_end_only = false;
    clock::duration asked{};  // how long the DisDB took for this look
    clock::time_point look_at{}, may_look_at{};
    clock::time_point may_wake_at{};  // when the next look at the end may begin
    bool woken = false;
  };

  lane &lane_of(queue_kind kind) { return kind == queue_kind::uploads ? uploads_ : deletes_; }
  // Runs without the lock while it talks to the DisDB, as do the two that take the guard below.
  void keep_house(std::unique_lock<std::mutex> &guard);
  // Members whose time has come go to the workers before anything that a look finds.
  void hand_out_due();
  // Reads a page of the queue when the workers are about to run out. True when there is more to
  // read at once.
  bool feed(lane &queue, std::unique_lock<std::mutex> &guard);
  // False when no look is due, or the DisDB did not say where the end of the queue begins.
  bool begin_look(lane &queue, std::unique_lock<std::mutex> &guard);
  // Sets when the next look may begin: a long queue must not keep the DisDB busy with looks.
  void end_look(lane &queue);
  void take_page(lane &queue, const std::vector<queue_entry> &entries);
  bool is_left_to_others(const work_item &item) const;
  // Makes a member ready and wakes a worker.
  void add(lane &queue, queue_entry entry);
  // A location that rested may be tried again: its members lie anywhere in the queues.
  void look_for_blocked();
  // Brings the next look forward; never puts it off.
  void look_again(lane &queue, clock::duration after);
  clock::time_point next_event() const;

  const job_context &context_;
  mutable std::mutex lock_;  // guards all that follows
  // Wakes `run`; the lanes' own condition variables wake workers.
  std::condition_variable events_;
  bool is_ended_ = false;
  bool has_event_ = false;
  std::chrono::seconds interval_{120};
  int window_ = 3600;
  int deletions_kept_ = 0;
  lane uploads_{.kind = queue_kind::uploads}, deletes_{.kind = queue_kind::deletes};
  backoff_table aside_;
  bool is_blocked_ = false;  // a member waits for a location that rests
  // When claims are renewed, old deletions are forgotten, and the DisDB may be asked again.
  clock::time_point renew_at_{}, trim_at_{}, ask_at_{};
};

#endif
