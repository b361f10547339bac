// Looks at the queues and hands their members to the workers.
// One thread of its own; reads the DisDB and keeps hundreds of members at most.
#include "transfer/feeder.h"

#include <algorithm>

#include <spoolcap/zarn_str.h>

namespace {

using namespace std::chrono_literals;

constexpr size_t low_water = 64;  // members that are ready, below which a page is read
constexpr size_t most_due = 64;   // handed out at once
constexpr auto renew_every = 15s;
constexpr auto trim_every = 1h;
constexpr auto pause_when_down = 500ms;
constexpr auto shortest_between_looks = 500ms;
constexpr int share_of_looks = 10;   // pause between looks, as a multiple of a look's cost
constexpr double end_of_queue = 60;  // seconds within which a new member is announced

// When a time of the wall clock comes.
// At most an hour ahead, so that a clock that jumps cannot stop the feeder.
std::chrono::steady_clock::time_point moment_of(double time) {
  const double left = std::clamp(time - qx_get_tstamp(), 0.0, 3600.0);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(left));
}

}  // namespace

void work_feeder::configure(const worker_settings &settings) {
  const std::lock_guard guard(lock_);
  interval_ = std::chrono::seconds(std::max(settings.look_interval, 1));
  window_ = settings.unclear_window;
  deletions_kept_ = settings.deletions_kept;
  aside_.hurry_all(qx_get_tstamp());
  look_again(uploads_, 0s);
  look_again(deletes_, 0s);
}

void work_feeder::wake() {
  const std::lock_guard guard(lock_);
  // The caller does not say which queue grew; a look at an end costs little.
  uploads_.woken = deletes_.woken = has_event_ = true;
  events_.notify_one();
}

void work_feeder::stop() {
  const std::lock_guard guard(lock_);
  is_ended_ = true;
  events_.notify_all();
  uploads_.filled.notify_all();
  deletes_.filled.notify_all();
}

std::optional<work_item> work_feeder::next(queue_kind kind) {
  std::unique_lock guard(lock_);
  lane &queue = lane_of(kind);
  queue.filled.wait(guard, [&] { return is_ended_ || !queue.ready.empty(); });
  if (is_ended_) return std::nullopt;
  work_item item{kind, std::move(queue.ready.front())};
  queue.ready.pop_front();
  // Only when the mark is crossed, or each member would wake the feeder.
  if (queue.ready.size() == low_water - 1) {
    has_event_ = true;
    events_.notify_one();
  }
  return item;
}

void work_feeder::ended(const work_item &item, const job_result &result) {
  const std::lock_guard guard(lock_);
  lane &queue = lane_of(item.kind);
  // First of all: from now on a look may hand the member out again.
  queue.taken.erase(item.entry.member);
  // Uploads meet a deletion from its begin on.
  if (item.kind == queue_kind::deletes && result.end != job_end::held) {
    const auto deletion = delete_member::parse(item.entry.member);
    if (deletion) aside_.hurry(*deletion, context_.queue.node(), qx_get_tstamp());
  }
  switch (result.end) {
    case job_end::settled:
      aside_.forget(item);
      // The look's place in the set moves to the front by as much.
      ++queue.removed;
      if (item.kind == queue_kind::uploads && !is_blocked_) return;
      if (is_blocked_) look_for_blocked();  // the location answers again
      break;
    // The member is at the end of the queue now, with its new time.
    case job_end::renewed:
      aside_.forget(item);
      queue.woken = true;
      break;
    // Not the member's fault: it is not put aside, and found again when the location is up.
    case job_end::held:
      aside_.postpone(item, qx_get_tstamp() + 1);
      is_blocked_ = true;
      break;
    case job_end::down:
      aside_.postpone(item, qx_get_tstamp() + 1);
      look_again(queue, pause_when_down);
      break;
    default:
      aside_.put_aside(item, result, qx_get_tstamp(), window_);
  }
  has_event_ = true;
  events_.notify_one();
}

std::vector<parked_member> work_feeder::parked(size_t most) const {
  const std::lock_guard guard(lock_);
  return aside_.parked(most);
}

size_t work_feeder::parked_count() const {
  const std::lock_guard guard(lock_);
  return aside_.parked_count();
}

size_t work_feeder::waiting() const {
  const std::lock_guard guard(lock_);
  return aside_.waiting(qx_get_tstamp());
}

bool work_feeder::is_working() const {
  const std::lock_guard guard(lock_);
  return !uploads_.taken.empty() || !deletes_.taken.empty();
}

void work_feeder::look_again(lane &queue, clock::duration after) {
  queue.look_at = std::min(queue.look_at, clock::now() + after);
}

void work_feeder::look_for_blocked() {
  is_blocked_ = false;
  look_again(uploads_, 0s);
  look_again(deletes_, 0s);
}

void work_feeder::add(lane &queue, queue_entry entry) {
  queue.taken.insert(entry.member);
  queue.ready.push_back(std::move(entry));
  queue.filled.notify_one();
}

void work_feeder::hand_out_due() {
  aside_.see_time(qx_get_tstamp());
  for (lane *queue : {&deletes_, &uploads_}) {
    // The workers have enough; what is due stays due.
    if (queue->ready.size() >= low_water) continue;
    for (work_item &item : aside_.take_due(queue->kind, qx_get_tstamp(), most_due)) {
      add(*queue, std::move(item.entry));
    }
  }
}

// The location of either kind of member.
static std::string location_of(const queue_entry &entry) {
  return std::string(parts_of_location(entry.member).location);
}

// Nodes may have different locations, and each works all deletions off: another one knows where.
bool work_feeder::is_left_to_others(const work_item &item) const {
  if (item.kind == queue_kind::uploads) return false;
  const auto deletion = delete_member::parse(item.entry.member);
  return deletion && deletion->node != context_.queue.node() &&
         !context_.locations.is_known(deletion->location);
}

void work_feeder::take_page(lane &queue, const std::vector<queue_entry> &entries) {
  for (const queue_entry &entry : entries) {
    work_item item{queue.kind, entry};
    if (queue.taken.contains(entry.member) || aside_.holds(item, qx_get_tstamp())) continue;
    const std::string location = location_of(entry);
    if (is_left_to_others(item)) continue;
    // A member without a known location goes to a worker, which reports it.
    if (context_.locations.is_known(location) && !context_.locations.might_start(location)) {
      is_blocked_ = true;
      continue;
    }
    queue.has_found = true;
    add(queue, std::move(item.entry));
  }
}

bool work_feeder::begin_look(lane &queue, std::unique_lock<std::mutex> &guard) {
  const auto now = clock::now();
  if (queue.look_at <= now && queue.may_look_at <= now) {
    queue.cursor = 0;
    // From the front: the oldest members first.
    queue.is_at_end_only = false;
    queue.look_at = now + interval_;
    queue.asked = {};
  } else if (queue.woken && queue.may_wake_at <= now) {
    // The DisDB may take seconds; workers must get and report members meanwhile.
    guard.unlock();
    const auto place = context_.queue.place_of(queue.kind, qx_get_tstamp() - end_of_queue);
    guard.lock();
    if (!place) {
      ask_at_ = clock::now() + pause_when_down;
      return false;
    }
    queue.cursor = *place;
    queue.is_at_end_only = true;
    queue.asked = clock::now() - now;
  } else {
    return false;
  }
  // What is queued from now on sets it again, and is seen by the next look at the end.
  queue.woken = queue.has_found = false;
  queue.removed = 0;
  return true;
}

void work_feeder::end_look(lane &queue) {
  // With a million members a look costs the DisDB much; it gets ten times as long a rest. While a
  // location rests, the end of the queue is long, too.
  if (queue.is_at_end_only) {
    queue.may_wake_at = clock::now() + queue.asked * share_of_looks;
    return;
  }
  queue.may_look_at = clock::now() + std::max<clock::duration>(shortest_between_looks,
                                                               queue.asked * share_of_looks);
  // Members may have moved past the look as other nodes removed theirs.
  if (queue.has_found) look_again(queue, queue.may_look_at - clock::now());
}

// Reads a page when the workers are about to run out. True when there may be more to read at once.
bool work_feeder::feed(lane &queue, std::unique_lock<std::mutex> &guard) {
  if (queue.ready.size() >= low_water || clock::now() < ask_at_) return false;
  if (queue.cursor < 0 && !begin_look(queue, guard)) return false;
  // Those that workers have may be removed while the page is read, and move the rest to the front.
  long cursor =
      std::max(0L, queue.cursor - std::exchange(queue.removed, 0) - std::ssize(queue.taken));
  guard.unlock();
  const auto start = clock::now();
  const auto page = queue.kind == queue_kind::uploads ? context_.queue.uploads(cursor)
                                                      : context_.queue.deletes(cursor);
  guard.lock();
  queue.asked += clock::now() - start;
  if (!page) {
    // For both queues, as they lie in the same server. The place is kept.
    ask_at_ = clock::now() + pause_when_down;
    return false;
  }
  queue.cursor = cursor;
  take_page(queue, *page);
  if (cursor < 0) end_look(queue);
  return cursor >= 0;
}

void work_feeder::keep_house(std::unique_lock<std::mutex> &guard) {
  const auto now = clock::now();
  const bool renew = renew_at_ <= now, trim = trim_at_ <= now;
  if (!renew && !trim) return;
  const int window = window_, deletions_kept = deletions_kept_;
  guard.unlock();
  if (renew) context_.queue.renew_claims();
  if (trim) context_.queue.trim(window, deletions_kept);
  guard.lock();
  // Counted from before the calls: claims live 60 s, and a slow DisDB must not eat that up.
  if (renew) renew_at_ = now + renew_every;
  if (trim) trim_at_ = now + trim_every;
}

work_feeder::clock::time_point work_feeder::next_event() const {
  auto when = std::min(renew_at_, trim_at_);
  for (const lane *queue : {&uploads_, &deletes_}) {
    if (queue->ready.size() >= low_water) continue;
    // A look that is under way goes on as soon as there is room for a page.
    auto look = std::max(queue->look_at, queue->may_look_at);
    if (queue->woken) look = std::min(look, queue->may_wake_at);
    when = std::min(when, queue->cursor >= 0 ? ask_at_ : std::max(look, ask_at_));
    const double due = aside_.next_due(queue->kind);
    if (due != 0) when = std::min(when, moment_of(due));
  }
  if (is_blocked_) when = std::min(when, moment_of(context_.locations.next_retry()));
  return when;
}

void work_feeder::run() {
  std::unique_lock guard(lock_);
  while (!is_ended_) {
    // Claims come first: without renewal other nodes would take the keys over.
    keep_house(guard);
    hand_out_due();
    if (is_blocked_ && context_.locations.next_retry() <= qx_get_tstamp()) look_for_blocked();
    // Deletions first, so that uploads which they cancel are not sent in vain.
    const bool more_deletes = feed(deletes_, guard);
    const bool more_uploads = feed(uploads_, guard);
    if (more_deletes || more_uploads || is_ended_) continue;
    events_.wait_until(guard, next_event(),
                       [this] { return is_ended_ || std::exchange(has_event_, false); });
  }
}
