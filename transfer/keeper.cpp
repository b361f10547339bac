// The keeper's thread: when it looks at the cache and the transfer folders.
// Removes nothing by itself: see keeper_look.cpp, keeper_room.cpp, keeper_judge.cpp.
#include "transfer/keeper.h"

#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "transfer/keeper_look.h"

namespace {

using clock = std::chrono::steady_clock;

// A restart is a bad moment to read the whole cache.
constexpr std::chrono::minutes first_look_after{1};
constexpr std::chrono::hours look_interval{1};
// Once a day the store is asked about files without a receipt, too.
constexpr std::chrono::hours ask_interval{24};
constexpr std::chrono::seconds limit_interval{5};
constexpr std::chrono::seconds between_limits{1};  // where hosts commit file after file
// Measuring the cache costs a walk through it; where nothing more can go, it gains nothing.
constexpr std::chrono::seconds between_rooms{30};
constexpr std::chrono::minutes between_vain_rooms{5};
constexpr std::chrono::minutes between_measures{1};
constexpr int measure_share = 20;  // pause between measurements, as a multiple of one's time

// What hosts and transfers do comes first, for the processor and the disk.
void lower_priority() {
  constexpr int whose_thread = 1;      // IOPRIO_WHO_PROCESS
  constexpr int idle_class = 3 << 13;  // IOPRIO_CLASS_IDLE
  // Both hold for this thread alone. A system that refuses them has a slower node, no fault.
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10);
  ::syscall(SYS_ioprio_set, whose_thread, 0, idle_class);
}

// Bytes that are wanted for the limit of free space. A little more than the limit is made free, so
// that the next file does not begin it all again.
std::int64_t wanted_free(const keeper_settings &settings) {
  struct statvfs disk {};
  if (settings.cache_free <= 0 || ::statvfs(settings.cache.c_str(), &disk) != 0) return 0;
  const auto total = static_cast<double>(disk.f_blocks) * static_cast<double>(disk.f_frsize);
  // What ordinary users may have: the rest is root's.
  const auto free = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize);
  if (free * 100 >= total * settings.cache_free) return 0;
  return static_cast<std::int64_t>(total * (settings.cache_free + 1) / 100 - free);
}

}  // namespace

class cache_keeper::engine {
 public:
  engine(transfer_queue &queue, transfer_locations &locations, transfer_state &state)
      : parts_{queue, locations, state, stop_} {}
  engine(const engine &) = delete;
  engine &operator=(const engine &) = delete;
  ~engine() { stop(); }

  void start(keeper_settings settings) {
    settings_ = std::move(settings);
    look_due_ = clock::now() + first_look_after;
    thread_ = std::thread([this] {
      lower_priority();
      while (!stop_) run_guarded();
    });
  }

  void reconfigure(keeper_settings settings) {
    const std::lock_guard guard(lock_);
    settings_ = std::move(settings);
    // Other limits, or another expiry: what stayed so far may go now.
    look_due_ = ask_due_ = room_due_ = clock::now();
    woken_ = true;
    wake_.notify_one();
  }

  void inserted() {
    const std::lock_guard guard(lock_);
    has_come_ = true;
    // The thread has just looked, and looks again within seconds.
    if (clock::now() < limits_due_) return;
    woken_ = true;
    wake_.notify_one();
  }

  void stop() {
    // Outside the lock too: walks look at it between two files.
    stop_ = true;
    {
      const std::lock_guard guard(lock_);
      woken_ = true;
      wake_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
  }

  keeper_report report() const {
    const std::lock_guard guard(lock_);
    return report_;
  }

 private:
  // One look without memory, say, is not the end of all looks.
  void run_guarded() {
    const bool ended = no_throw(false, [this] {
      run();
      return true;
    });
    if (ended) return;
    QX_LOG(FR_LOG_WARNING, "The keeper of the cache failed, and goes on later.");
    const std::lock_guard guard(lock_);
    look_due_ = clock::now() + look_interval;
    room_due_ = clock::now() + between_vain_rooms;
  }

  void run() {
    std::unique_lock guard(lock_);
    while (!stop_) {
      const auto due = std::min(look_due_, clock::now() + limit_interval);
      wake_.wait_until(guard, due, [this] { return woken_; });
      woken_ = false;
      limits_due_ = clock::now() + between_limits;
      // A copy: the round runs without the lock, and a reload may come meanwhile.
      const keeper_settings settings = settings_;
      const bool look_is_due = clock::now() >= look_due_;
      const bool ask_is_due = clock::now() >= ask_due_;
      const bool room_is_due = clock::now() >= room_due_;
      guard.unlock();
      if (look_is_due && !stop_) look(settings, ask_is_due);
      if (room_is_due && !stop_) keep_limits(settings);
      guard.lock();
    }
  }

  void look(const keeper_settings &settings, bool ask_all) {
    // Taken before the look: what comes during it may be counted twice, but never missed.
    const std::uint64_t moved = moved_bytes();
    // A long look is no reason to let the disk run full.
    clock::time_point limits_due = clock::now() + limit_interval;
    const auto result = look_through(parts_, settings, ask_all, [&] {
      if (clock::now() < limits_due) return;
      if (is_room_due()) keep_limits(settings);
      limits_due = clock::now() + limit_interval;
    });
    const std::lock_guard guard(lock_);
    const auto now = clock::now();
    look_due_ = now + look_interval;
    // Sooner when something did not answer: what was lost is then likely to be found.
    const bool is_whole = result && result->is_whole;
    if (ask_all) ask_due_ = now + (is_whole ? ask_interval : look_interval);
    // Broken off by a stop: the numbers would be too small.
    if (!result) return;
    report_ = *result;
    moved_at_look_ = moved;
  }

  bool is_room_due() const {
    const std::lock_guard guard(lock_);
    return clock::now() >= room_due_;
  }

  // What came into the cache since the start, at most.
  std::uint64_t moved_bytes() const {
    const transfer_counters &counters = parts_.state.counters;
    return counters.upload_bytes + counters.download_bytes;
  }

  // Whether the cache may have grown above its size.
  bool may_be_large(const keeper_settings &settings) const {
    const std::lock_guard guard(lock_);
    if (settings.cache_size <= 0 || report_.cached_bytes < 0) return false;
    // What hosts commit counts only once it is uploaded.
    if (has_come_ && clock::now() >= measure_due_) return true;
    const auto came = static_cast<std::int64_t>(moved_bytes() - moved_at_look_);
    return report_.cached_bytes + came > settings.cache_size;
  }

  void forget_arrivals() {
    const std::lock_guard guard(lock_);
    has_come_ = false;
  }

  void keep_limits(const keeper_settings &settings) {
    const std::int64_t missing = wanted_free(settings);
    if (missing <= 0 && !may_be_large(settings)) {
      is_above_limits_ = false;
      return;
    }
    const std::uint64_t moved = moved_bytes();
    forget_arrivals();
    const clock::time_point begin = clock::now();
    const room_report room = make_room(parts_, settings, missing);
    if (stop_) return;
    const clock::duration took = clock::now() - begin;
    // Then the next try comes later: it would walk through the cache for nothing.
    const bool vain = room.freed < room.wanted;
    const std::lock_guard guard(lock_);
    report_.cached_bytes = room.left;
    moved_at_look_ = moved;
    room_due_ = clock::now() + (vain ? between_vain_rooms : between_rooms);
    measure_due_ = clock::now() + std::max<clock::duration>(between_measures, took * measure_share);
    // Once, not each time that it is tried in vain.
    if (std::exchange(is_above_limits_, vain) || !vain) return;
    QX_LOG(FR_LOG_WARNING,
           "The cache %s is %lld bytes above its limits, and nothing more in it can go: the rest "
           "is queued, in use, or not known to be in the store.",
           settings.cache.c_str(), static_cast<long long>(room.wanted - room.freed));
  }

  std::atomic<bool> stop_{false};
  const keeper_parts parts_;
  bool is_above_limits_ = false;  // the keeper's thread has told so
  std::thread thread_;
  mutable std::mutex lock_;  // guards all that follows
  std::condition_variable wake_;
  bool woken_ = false;
  bool has_come_ = false;  // something into the cache since it was measured
  keeper_settings settings_;
  keeper_report report_;
  std::uint64_t moved_at_look_ = 0;
  clock::time_point look_due_, ask_due_, room_due_, limits_due_, measure_due_;
};

cache_keeper::cache_keeper(transfer_queue &queue, transfer_locations &locations,
                           transfer_state &state)
    : engine_(std::make_unique<engine>(queue, locations, state)) {}

cache_keeper::~cache_keeper() = default;

void cache_keeper::start(keeper_settings settings) {
  engine_->start(std::move(settings));
}

void cache_keeper::reconfigure(keeper_settings settings) {
  engine_->reconfigure(std::move(settings));
}

void cache_keeper::inserted() {
  engine_->inserted();
}

void cache_keeper::stop() {
  engine_->stop();
}

keeper_report cache_keeper::report() const {
  return engine_->report();
}
