// A small file that readers find whole, whatever happens while it is written.
#ifndef COMMON_REPLACE_FILE_H
#define COMMON_REPLACE_FILE_H

#include <sys/types.h>

#include <string>

// Writes the text beside `path`, as "<path>.new", and renames it there, with this mode whatever the
// umask. 0, or the error number, with the old file as it was and nothing left beside it.
int replace_file(const std::string &path, const std::string &text, mode_t mode);

#endif
