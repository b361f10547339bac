// The fixed paths themselves, in the order of enum qx_path_id; shared by all providers of qx_path.
#ifndef COMMON_PATHS_TABLE_H
#define COMMON_PATHS_TABLE_H

#include "common/paths.h"

// A new id needs its path at the same place here; a missing one would be NULL.
inline constexpr const char *qx_fixed_paths[QX_PATH_COUNT] = {
    "/etc/quorvex/paths.conf",     "/etc/quorvex/pbx.conf",       "/etc/quorvex/sqldbase.conf",
    "/etc/quorvex/disdbase.conf",  "/etc/quorvex/local.conf",     "/etc/asterisk/asterisk.conf",
    "/var/lib/quorvexquota",       "/var/spool/asterisk",         "/var/lib/asterisk",
    "/etc/quorvexnode/nodeid",     "/etc/quorvex/storage.conf",   "/usr/local/quorvex/stmp/in",
    "/usr/local/quorvex/stmp/out", "/usr/local/quorvex/scache",   "/etc/quorvex/transfer.conf",
    "/etc/quorvex/transfer.keys",  "/run/spoolcap/transfer.sock",
};

#endif
