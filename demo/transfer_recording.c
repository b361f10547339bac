/* transfer_recording BASE store CLIENT USER ID FILE
 * transfer_recording BASE fetch NAME LOCATION FILE
 * transfer_recording BASE delete NAME LOCATION
 *
 * A component of the platform that keeps recordings in an object store: it stores a copy of a file
 * as the recording of row ID, fetches a recording into a file, or deletes it. NAME and LOCATION are
 * the columns filename and az of the row. BASE is the directory of all media. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <spoolcap/sqlsession.h>
#include <spoolcap/transfer.h>
#include <spoolcap/zarn_storage.h>
#include "demo/copy_file.h"

static int store(int client, int user, int id, const char *file) {
  qx_storage_session_t *session =
      qx_storage_session_create(QX_STORAGE_RECORDING, client, user, "wav");
  const int failed = session == NULL || copy_file(file, qx_storage_get_temp_file(session)) != 0 ||
                     qx_storage_commit_file(session, id) != 0;
  if (!failed) puts(qx_storage_get_file_path(session));
  qx_storage_release_session(session); /* a file that was not stored goes with it */
  return failed;
}

static int fetch(const char *name, const char *location, const char *file) {
  qx_storage_session_t *session =
      qx_storage_session_retrieve(QX_STORAGE_RECORDING, name, "s3", location);
  const int failed = session == NULL || qx_storage_wait_for_file(session) != QX_STORAGE_READY ||
                     copy_file(qx_storage_get_file_path(session), file) != 0;
  qx_storage_release_session(session);
  return failed;
}

static int work(int argc, char **argv) {
  if (argc == 7 && strcmp(argv[2], "store") == 0)
    return store(atoi(argv[3]), atoi(argv[4]), atoi(argv[5]), argv[6]);
  if (argc == 6 && strcmp(argv[2], "fetch") == 0) return fetch(argv[3], argv[4], argv[5]);
  if (argc == 5 && strcmp(argv[2], "delete") == 0)
    return qx_storage_delete(QX_STORAGE_RECORDING, argv[3], "s3", argv[4]) != 0;
  return 2;
}

int main(int argc, char **argv) {
  if (argc < 2) return 2;
  qx_sql_pool_init();
  if (qx_storage_initialize(argv[1], NULL) != 0 || qx_transfer_start() != 0) return 1;
  const int status = work(argc, argv);
  qx_transfer_stop(); /* ends what still runs */
  qx_storage_cleanup();
  qx_sql_pool_destroy();
  return status;
}
