// Tells the administrator of a quota root whose locks do not keep processes apart: quick updates of
// two nodes would then overwrite each other. Internal to the engine.
#ifndef MAIN_QUOTA_LOCKS_H
#define MAIN_QUOTA_LOCKS_H

#include <string>
#include <string_view>

// The mount option in a line of /proc/self/mountinfo by which locks hold on one machine only; empty
// for none.
std::string_view local_lock_option(std::string_view mount);

// Logs a warning when the root lies on a file system that is mounted so.
void warn_of_local_locks(const std::string &quota_root) noexcept;

// Logs, once in a process, that a lock failed although no other process holds it. errno has the
// reason, and is unchanged.
void note_lock_failure() noexcept;

#endif
