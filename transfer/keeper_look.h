// One look through the cache and the transfer folders.
#ifndef TRANSFER_KEEPER_LOOK_H
#define TRANSFER_KEEPER_LOOK_H

#include <functional>

#include "transfer/keeper_judge.h"

// Expires, removes leftovers and counts. With `ask_all`, asks the store for each file without a
// receipt as well. `between` is called before each file of the cache. Nothing when it was ended
// before it was through.
std::optional<keeper_report> look_through(
    const keeper_parts &parts, const keeper_settings &settings, bool ask_all,
    const std::function<void()> &between = [] {});

// Less freed than wanted means that nothing more could go.
struct room_report {
  std::int64_t wanted = 0;  // bytes above the limits
  std::int64_t freed = 0;
  std::int64_t left = 0;  // bytes in the cache
};

// Measures the cache and removes files that the store has, longest unused first. Stops when the
// cache is below its size and `wanted_free` more bytes of the disk are free.
room_report make_room(const keeper_parts &parts, const keeper_settings &settings,
                      std::int64_t wanted_free);

#endif
