// How long to wait before the next try: exponentially longer, with full jitter, so that what failed
// together does not come back together.
#ifndef TRANSFER_JITTER_H
#define TRANSFER_JITTER_H

#include <algorithm>
#include <cmath>
#include <random>

// Seconds: at random between nothing and `base` doubled with each failure, `cap` at most.
inline double jittered(int failures, double base, double cap) {
  static thread_local std::minstd_rand random(std::random_device{}());
  const double most = std::min(cap, base * std::pow(2.0, std::clamp(failures - 1, 0, 30)));
  return std::uniform_real_distribution<double>(0, most)(random);
}

#endif
