// Copies the content of one open file into another.
#ifndef MAIN_STORAGE_COPY_CONTENT_H
#define MAIN_STORAGE_COPY_CONTENT_H

#include <atomic>

// Copies a regular file, of which nothing was read yet, into an empty one, in the cheapest way that
// the file systems have. A source that grows meanwhile is copied as far as it went at first. 0, or
// an error number: EIO for a source that shrinks, ECANCELED when the flag `stop` went up.
int copy_content(int from, int to, const std::atomic<bool> *stop = nullptr);

#endif
