// Directories and files at and below the quota root, opened so that only root decides where a path
// leads. The rule itself is in careful_open.h. Internal to the engine.
//
// User "asterisk" may put anything into the quota root, and a refresh runs as root. So the way
// below the root goes from descriptor to descriptor. A link counts only if root owns it in a folder
// that only root may write: an administrator moved a reseller to another disk. Refused are other
// links, and quota files that are not regular or have a second name. A refusal is ELOOP and one
// warning in the log; when opened only to read, it is not logged. The quota root itself may be a
// link. Nothing in here waits for a fifo or a device.
//
// If root was killed before it gave a new folder or file to its owner, a later refresh or update
// does so. It takes what root owns with the mode of our files.
#ifndef MAIN_QUOTA_FOLDER_H
#define MAIN_QUOTA_FOLDER_H

#include <sys/types.h>

#include <string>

#include "platform/base/owner.h"

// The process umask of 007 for the length of a scope; scopes of several threads may overlap.
// The umask is the process's, so files that other threads make meanwhile get it too.
class quota_umask {
 public:
  quota_umask();
  quota_umask(const quota_umask &) = delete;
  quota_umask &operator=(const quota_umask &) = delete;
  ~quota_umask();
};

// Creates every missing directory of an absolute path, and gives each it made to the ids when
// running as root. 0, or -1 with errno: EINVAL for no path, ENOTDIR where a component is no
// directory, ELOOP where one is refused. errno is 0 on success.
int make_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid);

// An open file of a quota folder.
struct quota_file {
  unique_fd fd;
  off_t size = 0;          // when it was opened, or, once it is locked, under the lock
  bool created = false;    // by this call
  bool is_locked = false;  // exclusively; the lock goes with the descriptor

  explicit operator bool() const { return static_cast<bool>(fd); }
};

// Tries for the exclusive lock without waiting, or waits for it; false when it cannot be had.
bool try_lock(quota_file &file);
bool wait_for_lock(quota_file &file);

// Opens a file that is there to read and write it, like quota_folder::open_to_write, in a single
// step for a path without any link. Empty when it takes more to say what is there: the folder is to
// be opened, or made, and asked.
quota_file open_quota_file(const char *path);

// An account's quota directory. Names are relative to it; that of a file of the account below may
// have the account in front: "34/fax.quota".
class quota_folder {
 public:
  explicit quota_folder(std::string path) : path_(std::move(path)) {}

  // As it was given; nothing follows it again once the folder is open.
  const std::string &path() const { return path_; }
  bool is_open() const { return static_cast<bool>(fd_); }

  // Opens the directory unless it is open; false, with errno, when that fails.
  bool open();
  // The same, with all that is missing on the way made first.
  bool make(uid_t uid, gid_t gid);
  void close() { fd_.reset(); }
  // Gives the open directory to its owner if that is left to do.
  void hand_over() const;

  // Opens a file to read it, and gives it to its owner only on request. Empty, with errno, when
  // that fails.
  quota_file open_to_read(const char *name, bool hand_over = false) const;
  // Opens a file to read and write it; one that is missing is created and given to its owner. The
  // lock is tried once, without waiting: no other process may delay a run before it has looked at
  // the file. A size learned under the lock need not be asked for again.
  quota_file open_to_write(const char *name) const;

  // Creates an empty file and gives it to its owner, or opens the one that is there. Empty, with
  // errno, when neither can be done, and for want of an owner, when the file stays all the same.
  quota_file create(const char *name) const;
  // 1 when anything of that name is there, or when that cannot be found out; else 0. A folder that
  // is not open is looked into by its path.
  int has(const char *name) const;
  // The result of unlink.
  int remove(const char *name) const;

 private:
  // Empty, with errno EEXIST, where anything has the name.
  unique_fd create_new(const char *name) const;

  std::string path_;
  unique_fd fd_;
};

#endif
