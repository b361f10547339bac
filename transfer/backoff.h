// The members that failed and are put aside for a while, in bounded memory. Not safe from several
// threads.
#ifndef TRANSFER_BACKOFF_H
#define TRANSFER_BACKOFF_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "transfer/job.h"

// A member of a queue on its way to a worker and back. It carries the score that was read with it.
struct work_item {
  queue_kind kind = queue_kind::uploads;
  queue_entry entry;
};

// Owned by the feeder and used under its lock. What is in here stays in the queue, too: a restart
// loses nothing but the times.
class backoff_table {
 public:
  // Whether this member is put aside with this score. One that was queued again is forgotten, and
  // may be tried at once.
  bool holds(const work_item &item, double now);
  // Puts a member aside for as long as its result says; `window` is the time of unclear ends, in
  // seconds.
  void put_aside(const work_item &item, const job_result &result, double now, double window);
  // Lets a member wait that was due and could not be tried.
  void postpone(const work_item &item, double until);
  // For a member that is done, or is in the queue no more. One that is not in the table is no
  // error.
  void forget(const work_item &item);
  // A deletion became known: the uploads of `node` that it may cover are due now.
  void hurry(const delete_member &deletion, const std::string &node, double now);

  // The members whose time has come. They stay in the table until they are put aside again or
  // forgotten.
  std::vector<work_item> take_due(queue_kind kind, double now, size_t most);
  double next_due(queue_kind kind) const;  // seconds since the epoch; 0 for none
  // Those that a person must mend, or may have to, oldest first.
  std::vector<parked_member> parked(size_t most) const;
  size_t parked_count() const;
  size_t waiting(double now) const;  // how many others there are, about
  // All that may be mended by now are due.
  void hurry_all(double now);
  // To be told the time now and then. When the clock was set back, all are due as above: what they
  // wait for lies too far ahead.
  void see_time(double now);

 private:
  // Both queues may hold the same text, so the kind is part of the name.
  using name = std::pair<queue_kind, std::string>;
  // A member that waits. `told.next` is the time under which `due_` has it.
  struct entry {
    std::string score;
    parked_member told;
    job_end end = job_end::retry;
    bool is_due = false;  // taken, and not in `due_`
  };
  static bool is_told(const entry &what);
  std::uint32_t &place_in_crowd(const work_item &item);
  void schedule(const name &which, entry &what, double when);

  // By name, so that the uploads below a prefix stand side by side; and by time, for each queue.
  std::map<name, entry> entries_;
  std::map<queue_kind, std::set<std::pair<double, std::string>>> due_;
  // Of more members than `entries_` may have: by a hash of member and score, the minute since the
  // epoch from which on it is tried again when a look finds it. Two in one place wait alike.
  std::vector<std::uint32_t> crowd_;
  double seen_ = 0;  // the time that was told last
};

#endif
