// What the files below a directory use. Internal to the engine.
#ifndef MAIN_QUOTA_DISK_USAGE_H
#define MAIN_QUOTA_DISK_USAGE_H

#include <cstdint>

// What a walk found. All false or 0 when there was nothing to walk.
struct disk_usage {
  uint64_t bytes = 0;      // unsigned: the sum of sparse files may pass any limit
  bool is_opened = false;  // whether there is a directory that can be opened
  // False when something is there that could not be read (a bad disk, no descriptors left), or
  // that the bound on links left out. What is missing, or closed to this process, counts as
  // nothing.
  bool is_all = true;
};

#endif
