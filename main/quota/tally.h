// What a run came to, for the line that ends it. Not guarded: one thread at a time refreshes.
#ifndef MAIN_QUOTA_TALLY_H
#define MAIN_QUOTA_TALLY_H

#include <array>
#include <cstdint>

#include <spoolcap/kinds.h>

// Counted by the walk, read by the command at its end. Hosts of the library may ignore it.
struct refresh_tally {
  long refreshed = 0;  // accounts whose files are all right now
  long failed = 0;     // accounts with a figure that is not certain, or not written
  long skipped = 0;    // accounts whose folder is not to be trusted; none below them counts
  std::array<int64_t, QUOTA_ALL_KINDS> bytes{};  // by kind, of the accounts that were asked for

  // A damaged record may hold any number; the sum then wraps.
  void add(unsigned kind, int64_t value) {
    static_cast<void>(__builtin_add_overflow(bytes[kind], value, &bytes[kind]));
  }
};

inline constinit refresh_tally the_tally;

#endif
