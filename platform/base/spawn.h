/* Starting programs whose output is read, without a shell. Safe from several threads. */
#ifndef PLATFORM_BASE_SPAWN_H
#define PLATFORM_BASE_SPAWN_H

#include <sys/types.h>

/* Starts argv[0], a path, with the NULL-ended vector `argv` and this process's environment.
 * The child writes its standard output into a pipe; its standard input and standard error are
 * /dev/null, and it gets no other descriptor, no blocked signal and no signal disposition of this
 * process. Its pid, with the pipe's reading end (close-on-exec, blocking, the caller's to close)
 * in *output; or -1 with errno, *output untouched, when it cannot be started.
 *
 * Nothing reaps the child before fr_spawn_finish, which every caller must call in the end: no
 * signal handler is set and no disposition of SIGCHLD changed. */
pid_t fr_spawn_async_piped(char *const argv[], int *output) noexcept;

/* Waits for the child's end up to `grace` seconds and reaps it. One that still runs goes on, and
 * is reaped when a later child is started. 0 when it ended; -1 when it runs on, or is no child of
 * this process any more because the host ignores SIGCHLD or reaps whatever ends. */
int fr_spawn_finish(pid_t pid, float grace) noexcept;

#endif
