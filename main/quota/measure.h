// Usage of directories: apparent sizes (st_size) of the regular files in them, links followed.
// Internal to the engine.
//
// A walk goes relative to directory descriptors. So it measures names of any bytes and paths of any
// length, with few descriptors open at a time. A directory that is already on the current path
// is not entered again. Directories linked to each other can have more ways through them than any
// walk can go: after 100,000 directories that were entered with a link on the way no further one
// is, with one warning in the log. An entry that vanishes is skipped; fifos, sockets and devices
// are never opened.
#ifndef MAIN_QUOTA_MEASURE_H
#define MAIN_QUOTA_MEASURE_H

#include <cstdint>

#include "main/quota/disk_usage.h"

// Measures one directory, and with `recurse` all below it. Throws when memory is short.
disk_usage measure_directory(const char *path, bool recurse);

// Adds the bytes of one directory to *total. 0; -1 when the path is empty or the directory cannot
// be opened. What cannot be read below it adds nothing.
int compute_quota(const char *path, int64_t *total, int recurse);

// The same for a path in a buffer that may grow; it is left as it was.
int compute_quota_dir(char **path, int64_t *total, int recurse);

#endif
