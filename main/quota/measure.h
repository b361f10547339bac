// Usage of directories: apparent sizes (st_size) of the regular files in them, links followed.
// Internal to the engine.
//
// A walk goes relative to directory descriptors, so names of any bytes and paths of any length are
// measured, with few descriptors open at a time. A directory that is already on the current path
// is not entered again; an entry that vanishes is skipped; fifos, sockets and devices are never
// opened. The path buffer is a growable string and is left as it was.
#ifndef MAIN_QUOTA_MEASURE_H
#define MAIN_QUOTA_MEASURE_H

#include <cstdint>

// Adds the bytes of one directory, and with `recurse` of all below it, to *total. 0; -1 when the
// path is empty or the directory cannot be opened. What cannot be read below it adds nothing.
int compute_quota_dir(char **path, int64_t *total, int recurse);

// The same for a path that is not the caller's to change.
int compute_quota(const char *path, int64_t *total, int recurse);

#endif
