// Copies the content of one open file into another. Internal to main/storage/.
#ifndef MAIN_STORAGE_COPY_CONTENT_H
#define MAIN_STORAGE_COPY_CONTENT_H

// Copies a regular file, of which nothing was read yet, into an empty one, in the cheapest way that
// the file systems have. A source that grows meanwhile is copied as far as it went at first. 0, or
// an error number: EIO for a source that shrinks.
int copy_content(int from, int to);

#endif
