// Limits of storage, as the preferences of an account hold them. Internal to the engine and the
// report.
#ifndef MAIN_QUOTA_LIMIT_H
#define MAIN_QUOTA_LIMIT_H

#include <cstdint>
#include <cstdlib>
#include <limits>

// The limit in bytes that a preference sets in KiB; a negative one is none. A text that is no
// number is a limit of 0.
inline int64_t limit_in_bytes(const char *kibibytes) {
  int64_t bytes = 0;
  if (__builtin_mul_overflow(std::atoll(kibibytes), 1024, &bytes)) {
    return *kibibytes == '-' ? -1 : std::numeric_limits<int64_t>::max();
  }
  return bytes;
}

#endif
