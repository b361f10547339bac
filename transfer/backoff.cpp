// Which failed members wait, and for how long.
// In memory only, under the feeder's lock; the queue itself is not touched.
#include "transfer/backoff.h"

#include <algorithm>

#include "platform/base/diagnostics.h"
#include "transfer/jitter.h"

namespace {

// Bounds the memory, however long the queues are.
constexpr size_t most_members = 10'000;
constexpr size_t crowd_places = size_t{1} << 19U;
constexpr size_t most_named = 20;      // in the log; the status names more
constexpr int tries_before_told = 10;  // of what may come right by itself
// All in seconds.
constexpr double first_pause = 1;
constexpr double longest_pause = 300;
constexpr double longest_claimed_pause = 15;
// A person has to mend these, so a try costs more than it brings.
constexpr double first_parked_pause = 300;
constexpr double longest_parked_pause = 3600;
constexpr double step_of_clock = 5;  // less is what a clock is corrected by all the time

double pause_after(const job_result &result, int tries, double window) {
  switch (result.end) {
    // The other job is done soon, but this service does not learn when.
    case job_end::claimed:
      return jittered(tries, first_pause, longest_claimed_pause);
    case job_end::parked:
      // Never at once, even where the jitter gives next to nothing.
      return first_parked_pause / 2 +
             jittered(tries, first_parked_pause, longest_parked_pause - first_parked_pause / 2);
    // Exactly the window: until then the unclear transfer may still take effect.
    case job_end::waiting:
      return window;
    default:
      return jittered(tries, first_pause, longest_pause);
  }
}

}  // namespace

void backoff_table::schedule(const name &which, entry &what, double when) {
  // The old time must go first: it is part of the key in `due_`.
  if (!what.is_due) due_[which.first].erase({what.told.next, which.second});
  what.told.next = when;
  what.is_due = false;
  due_[which.first].emplace(when, which.second);
}

bool backoff_table::is_told(const entry &what) {
  return what.end == job_end::parked ||
         (what.end == job_end::retry && what.told.tries >= tries_before_told);
}

bool backoff_table::holds(const work_item &item, double now) {
  const auto found = entries_.find({item.kind, item.entry.member});
  if (found == entries_.end()) return !crowd_.empty() && place_in_crowd(item) > now / 60;
  if (found->second.score == item.entry.score) return true;
  forget(item);
  return false;
}

std::uint32_t &backoff_table::place_in_crowd(const work_item &item) {
  crowd_.resize(crowd_places);
  const size_t hash = std::hash<std::string>()(item.entry.member + ' ' + item.entry.score);
  return crowd_[hash % crowd_places];
}

void backoff_table::put_aside(const work_item &item, const job_result &result, double now,
                              double window) {
  const name which{item.kind, item.entry.member};
  auto found = entries_.find(which);
  if (found == entries_.end()) {
    if (entries_.size() >= most_members) {
      place_in_crowd(item) =
          static_cast<std::uint32_t>((now + pause_after(result, 1, window)) / 60) + 1;
      return;
    }
    found = entries_.emplace(which, entry{}).first;
    found->second.told.member = item.entry.member;
    found->second.told.since = now;
    // It is not in `due_`; `schedule` below puts it there.
    found->second.is_due = true;
  }
  entry &what = found->second;
  const bool was_told = is_told(what) && what.told.reason == result.reason;
  what.score = item.entry.score;
  what.told.reason = result.reason;
  what.end = result.end;
  ++what.told.tries;
  if (is_told(what) && !was_told && entries_.size() <= most_named) {
    QX_LOG(FR_LOG_WARNING, "queue member [%s] is put aside: %s\n", item.entry.member.c_str(),
           result.reason.c_str());
  }
  schedule(which, what, now + pause_after(result, what.told.tries, window));
}

void backoff_table::postpone(const work_item &item, double until) {
  const auto found = entries_.find({item.kind, item.entry.member});
  if (found != entries_.end()) schedule(found->first, found->second, until);
}

void backoff_table::forget(const work_item &item) {
  const auto found = entries_.find({item.kind, item.entry.member});
  if (found == entries_.end()) return;
  if (!found->second.is_due) {
    due_[item.kind].erase({found->second.told.next, item.entry.member});
  }
  entries_.erase(found);
}

void backoff_table::hurry(const delete_member &deletion, const std::string &node, double now) {
  const std::string text =
      deletion.location + "@" + node + ":" + deletion.key + (deletion.whole_prefix ? "/" : "");
  const auto covers = [&](const std::string &member) {
    return deletion.whole_prefix ? member.starts_with(text) : member == text;
  };
  // Names are sorted, so the members below a prefix follow one another.
  for (auto found = entries_.lower_bound({queue_kind::uploads, text});
       found != entries_.end() && found->first.first == queue_kind::uploads &&
       covers(found->first.second);
       ++found) {
    if (!found->second.is_due) schedule(found->first, found->second, now);
  }
}

std::vector<work_item> backoff_table::take_due(queue_kind kind, double now, size_t most) {
  std::vector<work_item> items;
  auto &due = due_[kind];
  while (!due.empty() && due.begin()->first <= now && items.size() < most) {
    const name which{kind, due.begin()->second};
    due.erase(due.begin());
    entry &what = entries_.at(which);
    // It stays in the table, so that a look passes over it while a worker has it.
    what.is_due = true;
    items.push_back({kind, {which.second, what.score}});
  }
  return items;
}

double backoff_table::next_due(queue_kind kind) const {
  const auto due = due_.find(kind);
  return due == due_.end() || due->second.empty() ? 0 : due->second.begin()->first;
}

std::vector<parked_member> backoff_table::parked(size_t most) const {
  std::vector<const parked_member *> found;
  for (const auto &[which, what] : entries_) {
    if (is_told(what)) found.push_back(&what.told);
  }
  // By pointer: members hold texts, and only the first ones are copied.
  std::ranges::stable_sort(found, {}, &parked_member::since);
  if (found.size() > most) found.resize(most);
  std::vector<parked_member> members;
  members.reserve(found.size());
  for (const parked_member *one : found) members.push_back(*one);
  return members;
}

size_t backoff_table::parked_count() const {
  return static_cast<size_t>(
      std::ranges::count_if(entries_, [](const auto &one) { return is_told(one.second); }));
}

size_t backoff_table::waiting(double now) const {
  return entries_.size() - parked_count() +
         static_cast<size_t>(std::ranges::count_if(
             crowd_, [now](std::uint32_t minute) { return minute > now / 60; }));
}

void backoff_table::hurry_all(double now) {
  crowd_.clear();
  for (auto &[which, what] : entries_) {
    // Waiting is for time to pass, which no reload makes faster.
    if (!what.is_due && what.end != job_end::waiting) schedule(which, what, now);
  }
}

void backoff_table::see_time(double now) {
  if (now < seen_ - step_of_clock) hurry_all(now);
  seen_ = now;
}
