// The engine's state on disk: one quota file per account and kind, a companion dirty mark, and the
// settings that say where these and the measured media live. Internal to the engine.
//
// A quota file holds "<bytes>.<revision>" and nothing else, at most 31 characters: the bytes that
// the kind takes in the account's subtree, and the fast updates since the last full refresh. It
// lies in <root>/<reseller>[/<client>[/<owner>]]/<kind name>.quota. A dirty mark is an empty file
// of that name with ".dirty" appended: the value is not to be trusted.
//
// Functions give 0 or -1 unless they say otherwise; paths they give are malloc'ed, the caller's.
#ifndef MAIN_QUOTA_STORE_H
#define MAIN_QUOTA_STORE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "base/owner.h"
#include "quota/quota.h"

inline constexpr mode_t quota_file_mode = 0660;
inline constexpr mode_t quota_directory_mode = 0770;

// Levels of an account.
enum account_level { LEVEL_ROOT = 0, LEVEL_RESELLER = 10, LEVEL_CLIENT = 50, LEVEL_OWNER = 100 };

// One up to this level is the top when the tree is climbed.
inline constexpr int highest_top_level = 10;

// Names by kind: of the quota file, and of the limit preference (KiB).
extern const char *const quota_kind_names[QUOTA_ALL_KINDS];
extern const char *const quota_limit_names[QUOTA_ALL_KINDS];

// Process-wide settings, filled once by get_conf and kept.
struct quota_settings {
  c_string quota_root;
  c_string ast_spool_dir;
  c_string ast_var_lib_dir;
};

// Fills the settings from the platform's files, defaults where these are silent. 0.
int get_conf();

// The settings, loaded at the first call; null when memory is short.
const quota_settings *loaded_settings();

// User and group ids by name; a lookup whose name or output is null is skipped. -1 when a name is
// not known.
int get_ids(const char *user_name, const char *group_name, uid_t *uid, gid_t *gid);

// The ids of user and group "asterisk", who own all that the engine creates as root. Looked up at
// the first need and kept; a kept 0 counts as not yet looked up. -1, logged once at error
// priority, when they are not known.
int owner_ids(uid_t *uid, gid_t *gid);

// Quota files of one kind (for kind 5: directories) along an ancestry; an output that is null, or
// whose ids are 0, is not built.
int make_qpaths(unsigned kind, int reseller_id, int client_id, int owner_id, char **reseller_path,
                char **client_path, char **owner_path);

// The quota files of one kind along an ancestry; null where an id is 0.
struct ancestry_paths {
  c_string reseller;
  c_string client;
  c_string owner;

  // False for a kind above 5 and for a reseller that is not positive.
  bool make(unsigned kind, int reseller_id, int client_id, int owner_id);
};

// The media directories to measure for one account and kind: a malloc'ed array of *count paths
// (count 0 on entry). -1 for a level without an id, and for kinds 0, 2 and 3 below level 100.
int make_dpath(unsigned kind, int level, const char *reseller_id, const char *client_id,
               const char *owner_id, char ***paths, size_t *count);

// Frees what make_dpath gave.
void free_dpath(char **paths, size_t count);

// Ends *path in "/" and appends `number`, or, when that is 0, the next two arguments: a text and
// an int flag; with flag 0 the text's leading zeros are left out. Returns *path, which may have
// moved, or null when the text is null.
char *quota_str_append(char **path, int number, ...);

// Gives an open file to the owner ids when running as root; a failure is nobody's loss.
void give_to_owner(int fd);

// The process umask of 007 for the length of a scope; scopes of several threads may overlap.
class quota_umask {
 public:
  quota_umask();
  quota_umask(const quota_umask &) = delete;
  quota_umask &operator=(const quota_umask &) = delete;
  ~quota_umask();
};

// Opens a quota file to read and write it; a missing one is created and given to the owner ids,
// and *created is then set. Empty, with errno, when that fails. Here and below, `at` is the open
// directory that a relative path starts from.
unique_fd open_quota_file(const char *path, int at = AT_FDCWD, bool *created = nullptr);

// Reads the record at the file's position. -1, with the outputs untouched, when there is none.
int quota_read_internal(int fd, int64_t *value, int *revision);

// Replaces the file's content with the record; the caller holds the file's lock. The record goes
// over the old one in one call (after the file grew by dots, when it is longer) and the file is cut
// to its length, so that a reader without the lock never meets an empty file and a crash leaves one
// of the two values. When the write fails the file is left empty.
int quota_write_internal(int fd, int64_t value, int revision);

// Creates every missing directory of an absolute path, and gives it to the ids when running as
// root. Sets errno: 0 on success, ENOTDIR where a component is no directory.
int make_dirs(const char *path, mode_t mode, uid_t uid, gid_t gid);

// 1 when the quota file has a dirty mark, else 0.
int is_dirty(const char *path, int at = AT_FDCWD);

int set_dirty(const char *path, int at = AT_FDCWD);

// The result of unlink.
int unset_dirty(const char *path, int at = AT_FDCWD);

#endif
