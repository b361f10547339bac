// What a session under engine POSIX knows: files lie in local folders, one for each kind of media.
// Internal to main/storage/.
#ifndef MAIN_STORAGE_POSIX_PART_H
#define MAIN_STORAGE_POSIX_PART_H

#include <string>

// Belongs to the thread that uses the session.
struct posix_part {
  std::string folder;          // of the kind
  std::string requested_name;  // empty when none was
};

#endif
