/* store_recording BASE CLIENT USER ID FILE
 *
 * Stores a copy of a file as the recording of row ID, as a component of the platform does, and
 * prints where it is. BASE is the directory of all media. */
#include <stdio.h>
#include <stdlib.h>

#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_storage.h>
#include "demo/copy_file.h"

int main(int argc, char **argv) {
  if (argc != 6) return 2;
  qx_sql_pool_init();
  if (qx_storage_initialize(argv[1], NULL) != 0) return 1;
  qx_storage_session_t *session =
      qx_storage_session_create(QX_STORAGE_RECORDING, atoi(argv[2]), atoi(argv[3]), "wav");
  int failed = session == NULL || copy_file(argv[5], qx_storage_get_temp_file(session)) != 0 ||
               qx_storage_commit_file(session, atoi(argv[4])) != 0;
  if (!failed) puts(qx_storage_get_file_path(session));
  qx_storage_release_session(session); /* a file that was not stored goes with it */
  qx_storage_cleanup();
  qx_sql_pool_destroy();
  return failed;
}
