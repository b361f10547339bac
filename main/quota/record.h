// The record that a quota file holds: "<bytes>.<revision>" and nothing else, at most 31 characters:
// the bytes that the kind takes in the account's subtree, and the fast updates since the last full
// refresh. Internal to the engine.
#ifndef MAIN_QUOTA_RECORD_H
#define MAIN_QUOTA_RECORD_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "main/quota/folder.h"

// Revisions that a refresh leaves alone end here, and the first that it does not.
inline constexpr int highest_fresh_revision = 999;
inline constexpr int expired_revision = 1000;

// Reads the record at the file's position. -1, with the outputs untouched, when there is none.
int quota_read_internal(int fd, int64_t *value, int *revision);

// Replaces the file's content with the record; the caller holds the file's lock. A reader without
// the lock finds a whole value at every moment, and so does whoever comes after a kill: the value
// is the old one or the new one. A file that held no record holds none before it holds the new one.
// `size` is the file's, -1 when the caller does not know it. 0, or -1 with the file left empty when
// the write failed.
int quota_write_internal(int fd, int64_t value, int revision, off_t size = -1);

// A record as it was read.
struct quota_record {
  int64_t value;
  int revision;
  bool is_whole;  // false when a writer was killed before it had cut the file
};

// The record of an opened file.
std::optional<quota_record> record_of(const quota_file &file);

// 1 when the quota file holds a whole record whose revision is 0 to 999, else 0. The value, when
// one was read, is left in *value.
int is_rev_inrange(const quota_folder &folder, const char *file, int64_t *value);

// Writes one record under the file's lock, creating the file when it is not there. 0, or -1 when
// it can be neither opened nor created. Only *written says whether the write itself succeeded.
int quota_real_update(const quota_folder &folder, const char *file, int64_t value, int revision,
                      bool *written = nullptr);

// Gives the file a revision that the next refresh does not leave alone, and keeps its value. A file
// that is missing or holds no record needs nothing.
void expire_quota_file(const quota_folder &folder, const char *file);

#endif
