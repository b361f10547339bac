// User and group ids by name.
#ifndef PLATFORM_BASE_IDS_H
#define PLATFORM_BASE_IDS_H

#include <sys/types.h>

// A lookup whose name or output is null is skipped. -1 when a name is not known.
int get_ids(const char *user_name, const char *group_name, uid_t *uid, gid_t *gid);

#endif
