// Giving to user and group "asterisk" what root made at and below the quota root. Internal to the
// engine.
//
// A refresh as root may be killed between making a file and giving it away. Whoever opens the file
// next hands it over: what root owns and has the mode of one of ours was left behind.
#ifndef MAIN_QUOTA_HAND_OVER_H
#define MAIN_QUOTA_HAND_OVER_H

#include <sys/stat.h>
#include <sys/types.h>

// Owner and group "asterisk" read and write; others have no access.
inline constexpr mode_t quota_file_mode = 0660;
inline constexpr mode_t quota_directory_mode = 0770;

// Only root can give files away, and only root is worth tricking.
bool running_as_root();

// False, with errno, when the system refuses.
bool give(int fd, uid_t uid, gid_t gid);
// Gives to the owner of the quota files; the file is unchanged when the owner is not known.
void give_to_owner(int fd);

// Whether a folder that was just made is still in its place. A process that may write the folder
// around it may have put another one of root's there.
bool is_just_made(int fd, const struct stat &status);

// Gives an open folder or file to its owner if it was left behind.
void hand_over_folder(int fd);
void hand_over_file(int fd, const struct stat &status);

#endif
