// Opening where others may put links. A link counts only if root owns it in a folder that only root
// may write. The same rule holds for what it leads to. Internal to the engine.
//
// Flags are those of open; results are empty, with errno, when nothing was opened: ELOOP for a link
// that does not count.
#ifndef MAIN_QUOTA_CAREFUL_OPEN_H
#define MAIN_QUOTA_CAREFUL_OPEN_H

#include <string>

#include "platform/base/owner.h"

// Of a folder that is only passed through: O_PATH needs no right to read it.
inline constexpr int folder_flags = O_PATH | O_DIRECTORY | O_CLOEXEC;

// Opens a path on which no component is a link, in one call. ELOOP where one is, of whomever, and
// where the kernel does not offer the call: the other functions then find out.
unique_fd open_without_links(int at, const char *path, int flags);

// Opens one entry of an open folder.
unique_fd open_entry(int folder, const char *name, int flags);

// Opens what a path leads to, component by component.
unique_fd open_carefully(int at, const std::string &path, int flags);

#endif
