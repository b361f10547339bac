// The settings of one run: filled by parse_args and get_config before anything else happens, and
// read-only afterwards.
#ifndef TOOL_SETTINGS_H
#define TOOL_SETTINGS_H

#include "platform/base/owner.h"

enum run_action { ACTION_NONE = 0, ACTION_SET = 1, ACTION_SHOW = 2 };
enum run_target_mode { TARGET_NONE = 0, TARGET_UID = 1, TARGET_ULOGIN = 2, TARGET_ALL = 3 };

struct run_settings {
  // Filled by parse_args.
  int action;         // run_action
  int target_mode;    // run_target_mode
  c_string uid_list;  // the text of --uid as typed
  c_string ulogin_list;
  int force_depth;    // levels below each target that are refreshed whatever their state; 0 or 10
  int children_flag;  // accepted, never read: a refresh always covers the subtree
  int human_flag;
  int quiet_flag;
  // Filled by get_config. Nothing reads them: the quota engine finds its own directories, and where
  // quota files are written does not depend on these.
  safestr_owner quota_dir;
  safestr_owner ast_spool_dir;
  safestr_owner ast_lib_dir;
};

// The one instance; only options.cpp and settings.cpp write it.
extern run_settings run;

// Reads the directories from the platform's and Asterisk's configuration files; a missing file or
// directive gives the default. Always 0; `main` keeps a status for a failure.
int get_config();

#endif
