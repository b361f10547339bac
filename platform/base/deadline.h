// A point in time that a whole call is held to, however often it has to wait.
#ifndef PLATFORM_BASE_DEADLINE_H
#define PLATFORM_BASE_DEADLINE_H

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>

// Monotonic time: setting the system's clock neither ends nor prolongs a wait. Copies are cheap,
// and several threads may look at one.
class deadline {
 public:
  using clock = std::chrono::steady_clock;

  // A moment that is over already is allowed: `passed` is true then at once.
  explicit deadline(clock::time_point end) noexcept : end_(end) {}

  // `seconds` from now. 0, negative and NaN have already passed; more than a year is cut to a year.
  explicit deadline(float seconds) noexcept
      : end_(clock::now() + std::chrono::ceil<clock::duration>(std::chrono::duration<double>(
                                seconds > 0 ? std::min<double>(seconds, 31'536'000) : 0.0))) {}

  bool passed() const noexcept { return clock::now() >= end_; }

  // As poll takes it.
  int milliseconds_left() const noexcept {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
  }

 private:
  clock::time_point end_;
};

// Whether `fd` is ready for `events`, or has failed or hung up: the next read or write then shows
// which. Signals do not end the wait. Without a deadline there is no limit. errno has the reason
// for false: ETIMEDOUT when the time is up.
inline bool wait_ready(int fd, short events, const deadline *end) noexcept {
  // poll would pass over a descriptor that is none and wait for nothing.
  if (fd < 0) return true;
  for (;;) {
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, end == nullptr ? -1 : end->milliseconds_left());
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) errno = ETIMEDOUT;
    return false;
  }
}

#endif
