// Making directories, for all modules that need some. Internal to main/.
#ifndef PLATFORM_BASE_MAKE_DIRECTORIES_H
#define PLATFORM_BASE_MAKE_DIRECTORIES_H

#include <sys/types.h>

#include <functional>

// Creates every missing directory of a path, with this mode less the umask. Each one that was made
// is handed to `finish`, which gives 0 or an error number. 0, or the first error number: ENOTDIR
// where a component is no directory.
int make_directories(const char *path, mode_t mode,
                     const std::function<int(const char *path)> &finish);

#endif
