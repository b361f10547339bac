// How long the commands of a process may wait for the cache. Internal to platform/velkan.
#ifndef PLATFORM_VELKAN_BUDGET_H
#define PLATFORM_VELKAN_BUDGET_H

#include <algorithm>
#include <atomic>
#include <chrono>

// A budget of 2.5 s at most that gains 4 ms a second. A command is charged with what it takes
// beyond half a millisecond, and what it takes less is given back. So in any ten minutes the
// commands of one client take at most 2.5 s + 2.4 s, that is 4.9 s, and half a millisecond each.
// The spread of the time over them does not matter. Commands of several clients that wait at the
// same moment may each use what is left. No cache is charged whose answers take less than half a
// millisecond on average.
//
// A look-up of a name cannot be cut off, and may so leave a debt. A longer one than ten minutes
// pay off is forgiven, so that the cache is asked again then.
//
// The caller passes the time. Safe from several threads, and in a child of fork, which goes on with
// what its parent had left.
class vk_budget {
 public:
  using duration = std::chrono::steady_clock::duration;
  using time_point = std::chrono::steady_clock::time_point;

  // What a command that starts now may take; nothing when the cache is to count as down, which is
  // when less is left than asking it once in earnest may need.
  duration left(time_point now) const noexcept {
    const duration left = most - owed(now) / regained_after;
    return left < least ? duration::zero() : left;
  }

  // Books what a command took, from `start` to `end`. Threads may charge at the same time: each
  // adds to what the others booked.
  void charge(time_point start, time_point end) noexcept {
    time_point before = full_at_.load();
    time_point after;
    do {
      const duration owes = std::max(before - end, duration::zero());
      const duration more = (end - start - allowance) * regained_after;
      after = end + std::clamp(owes + more, duration::zero(), longest_debt);
    } while (!full_at_.compare_exchange_weak(before, after));
  }

 private:
  // How the numbers hang together: 2.5 s to spend, and 4 ms a second is one part in 250.
  static constexpr duration most = std::chrono::milliseconds(2500);
  static constexpr duration least = std::chrono::milliseconds(10);
  static constexpr duration allowance = std::chrono::microseconds(500);
  static constexpr int regained_after = 250;  // times as long as it was waited
  static constexpr duration longest_debt = most * regained_after + std::chrono::minutes(10);

  // How long it takes from `now` until the budget is whole again.
  duration owed(time_point now) const noexcept {
    return std::max(full_at_.load() - now, duration::zero());
  }

  // The whole state in one number: when the budget will be full. In the past, it is full.
  std::atomic<time_point> full_at_{time_point{}};
};

#endif
