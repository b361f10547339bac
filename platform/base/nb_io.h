/* Input and output that never waits longer than its time limit.
 *
 * Timeouts are in seconds and hold for the whole call, however many pieces the bytes come in and
 * whatever signals arrive; one of 0 or less takes only what can be had at once. A descriptor's
 * blocking mode is found again as it was; on what is no socket it is changed for the length of one
 * system call, which whoever shares the open file may notice: one process and thread at a time may
 * use such a file here, or a call may wait longer than its limit. No call raises SIGPIPE.
 * Failures are -1 with errno set, ETIMEDOUT when the time was up. Safe from several threads. */
#ifndef PLATFORM_BASE_NB_IO_H
#define PLATFORM_BASE_NB_IO_H

#include <sys/types.h>

#include <cstddef>

/* Connects to the Unix-domain stream socket `path`. A close-on-exec descriptor in blocking mode,
 * the caller's to close, or -1 (ENAMETOOLONG for a path that no address holds, EINVAL for NULL). */
int fr_connect_nb_unix(const char *path, float timeout) noexcept;

/* Waits for input and reads it once. Bytes read, 1 to `length`; 0 at the end of the input; -1. */
ssize_t fr_read_nb(int fd, void *buffer, size_t length, float timeout) noexcept;

/* Writes all `length` bytes. 0, or -1: some of them may have been written then. */
int fr_write_nb_full(int fd, const void *buffer, size_t length, float timeout) noexcept;

#endif
