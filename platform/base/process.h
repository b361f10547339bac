// Telling a child of fork from its parent.
#ifndef PLATFORM_BASE_PROCESS_H
#define PLATFORM_BASE_PROCESS_H

// A number that differs between a process and each child it forks after the first call. Unlike
// getpid it makes no system call, so that whoever keeps connections may ask at every use. It
// counts children of fork(), not those of a bare clone or _Fork. Safe from any thread.
long process_generation() noexcept;

#endif
