/* The one seam for fixed paths: every path of the platform that is not configured comes from here.
 * The installed program links the real ones and reads no environment; tests and the demo link a
 * provider that puts a sandbox folder in front of each. */
#ifndef COMMON_PATHS_H
#define COMMON_PATHS_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Directories and files of the system that this software was made for. Ids are used inside the
 * tree only, so they may be renumbered. */
enum qx_path_id {
  QX_PATH_PATHS_CONF,      /* directories of the platform */
  QX_PATH_PBX_CONF,        /* database credentials; cache servers */
  QX_PATH_SQLDBASE_CONF,   /* database servers */
  QX_PATH_DISDBASE_CONF,   /* cache servers */
  QX_PATH_LOCAL_CONF,      /* options of this node */
  QX_PATH_ASTERISK_CONF,   /* Asterisk's own configuration */
  QX_PATH_QUOTA_ROOT,      /* default of the quota root */
  QX_PATH_AST_SPOOL,       /* default of Asterisk's spool directory */
  QX_PATH_AST_LIB,         /* default of Asterisk's library and var-lib directories */
  QX_PATH_NODE_ID,         /* id of this node */
  QX_PATH_STORAGE_CONF,    /* file storage */
  QX_PATH_TRANSFER_IN,     /* default of the folder of downloads from the object store */
  QX_PATH_TRANSFER_OUT,    /* default of the folder of files that leave for it */
  QX_PATH_STORAGE_CACHE,   /* default of the local cache of the object store */
  QX_PATH_TRANSFER_CONF,   /* transfer service */
  QX_PATH_TRANSFER_KEYS,   /* default of its keys to the object store */
  QX_PATH_TRANSFER_SOCKET, /* default of its socket */
  QX_PATH_COUNT
};

/* The path, absolute and without a trailing slash; static, never NULL for an id of the list. Safe
 * from several threads. */
const char *qx_path(enum qx_path_id id);

SPOOLCAP_END_DECLARATIONS

/* What a configuration file says, or the fixed path for NULL and an empty text, which would be the
 * root of the file system. Borrowed like both. */
inline const char *qx_path_or(const char *text, qx_path_id otherwise) {
  return text == nullptr || *text == '\0' ? qx_path(otherwise) : text;
}

#endif
