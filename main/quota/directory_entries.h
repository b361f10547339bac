// Reads one directory at a time: what its files hold, and which directories are in it. Internal to
// the walk of measure.cpp.
#ifndef MAIN_QUOTA_DIRECTORY_ENTRIES_H
#define MAIN_QUOTA_DIRECTORY_ENTRIES_H

#include <memory>
#include <vector>

#include "main/quota/disk_usage.h"

// After a call that failed: errno tells whether something was missed.
void note_failed_call(disk_usage &found);

// One buffer for all directories of a walk, made with the first.
class directory_entries {
 public:
  // Adds the bytes of the regular files in an open directory to `found`. With `recurse` the names
  // of its directories, and of links to such, go to the end of `names`, each with a final 0. Throws
  // when memory is short.
  void read(int directory, bool recurse, disk_usage &found, std::vector<char> &names);

 private:
  std::unique_ptr<char[]> buffer_;
};

#endif
