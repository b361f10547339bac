// One file of the cache or of a transfer folder, held so that it can be looked at and removed
// safely: nothing is removed that is open in any process, or that became another file meanwhile.
#ifndef TRANSFER_CACHE_FILE_H
#define TRANSFER_CACHE_FILE_H

#include <sys/stat.h>

#include <optional>
#include <string>

#include "main/storage/files.h"
#include "platform/base/owner.h"

// What a host left half copied.
inline constexpr const char *storing_prefix = ".storing-";

// What became of one try; only `removed` changed anything.
enum class removal {
  removed,
  in_use,   // open in a process, or used since it was looked at
  changed,  // another file has its name now, or none
  failed    // errno has the reason
};

class cache_file {
 public:
  // Opens a regular file by its name in a folder, which must outlive this; follows no link. Nothing
  // when there is none, or it cannot be read.
  static std::optional<cache_file> open(int folder, std::string name);

  // Open for reading only; borrowed.
  int fd() const { return fd_.get(); }
  const struct stat &status() const { return status_; }  // as it was when opened
  double last_use() const;                               // seconds since the epoch

  // When it was made, which nothing changes; its last use where the file system does not know.
  double made_at() const;
  bool knows_birth() const;

  // Takes a write lease for the length of the call. A process that opens the file meanwhile waits.
  removal remove();

 private:
  // The part of `remove` that runs under the lease.
  removal remove_leased();

  cache_file(int folder, std::string name, unique_fd fd, const struct stat &status)
      : folder_(folder), name_(std::move(name)), fd_(std::move(fd)), status_(status) {}

  // Borrowed; the walk that found the file keeps it open.
  int folder_;
  std::string name_;
  unique_fd fd_;
  struct stat status_;
};

// Gives a file that was on its way out its name back. When the name is taken it is removed if its
// receipt says that the store has it; otherwise it stays, and can be put back later. The log names
// it then if `tell`.
void put_back(int folder, const std::string &removing_name, bool tell = true);

#endif
