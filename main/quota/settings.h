// Where quota files and measured media live, and which user owns what the engine makes.
// Process-wide, loaded at the first need and kept. Internal to the engine.
#ifndef MAIN_QUOTA_SETTINGS_H
#define MAIN_QUOTA_SETTINGS_H

#include <sys/types.h>

#include <string>

// Absolute paths: of the quota tree, and of Asterisk's media as asterisk.conf names them.
struct quota_settings {
  std::string quota_root;
  std::string ast_spool_dir;
  std::string ast_var_lib_dir;
};

// Fills the settings from the platform's files, with defaults where these are silent or missing. 0.
int get_conf();

// The settings, loaded at the first call; null while a file that holds them cannot be read.
const quota_settings *loaded_settings();

// The ids of user and group "asterisk", the owners of all that the engine creates as root. Looked
// up at the first need and kept; a kept 0 counts as not yet looked up. -1, logged once at error
// priority, when they are not known.
int owner_ids(uid_t *uid, gid_t *gid);

#endif
