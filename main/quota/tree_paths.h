// Paths of quota files and of measured media. Internal to the engine.
//
// Quota files lie in <root>/<reseller>[/<client>[/<owner>]]/<kind name>.quota, ids in decimal and
// without padding.
#ifndef MAIN_QUOTA_TREE_PATHS_H
#define MAIN_QUOTA_TREE_PATHS_H

#include <string>
#include <vector>

// Quota files of one kind (for kind 5: directories, without a slash at the end) along an ancestry.
// An output that is null, or whose ids are 0, is left alone. 0; -1 for a kind above 5, a reseller
// below 1, and settings that cannot be read.
int make_qpaths(unsigned kind, int reseller_id, int client_id, int owner_id,
                std::string *reseller_path, std::string *client_path, std::string *owner_path);

// Adds the media directories to measure for one account and kind. Ids are texts, empty where there
// is none. 0; -1 in these cases:
// - a level without an id, or settings that cannot be read;
// - kinds 0, 2 and 3 of a level below 100, and kinds above 4.
int make_dpath(unsigned kind, int level, const char *reseller_id, const char *client_id,
               const char *owner_id, std::vector<std::string> &paths);

// Ends `path` in "/" and appends `number`, or, when that is 0, the text, whose leading zeros are
// left out unless `keep_zeros` is set. False for no text; only the "/" was then added.
bool quota_str_append(std::string &path, int number, const char *text, bool keep_zeros = false);

#endif
