/* recording BASE store CLIENT USER ID FILE
 * recording BASE fetch NAME LOCATION FILE
 * recording BASE delete NAME LOCATION
 *
 * A component that keeps recordings in an object store: it stores a copy of a file as the recording
 * of row ID, fetches a recording into a file, or deletes it. NAME and LOCATION are the columns
 * filename and az of the row. BASE is the directory of all media.
 *
 * qx_transfer_start() is all that it takes to reach the store: the service on this node has the
 * keys and the connections.
 *
 *   cc -std=c11 recording.c -o recording $(pkg-config --cflags --libs spoolcap) */
#include <spoolcap/sqlsession.h>
#include <spoolcap/transfer.h>
#include <spoolcap/zarn_storage.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Copies all that a file has; 0, or -1 with a line that says why. */
static int copy_file(const char *from, const char *to) {
  FILE *source = fopen(from, "rb");
  FILE *target = source != NULL ? fopen(to, "wb") : NULL;
  int failed = target == NULL;
  char block[65536];
  for (size_t count = 1; !failed && count > 0;) {
    count = fread(block, 1, sizeof(block), source);
    failed = fwrite(block, 1, count, target) != count || ferror(source);
  }
  if (target != NULL && fclose(target) != 0) failed = 1;
  if (source != NULL) fclose(source);
  if (failed) fprintf(stderr, "Cannot copy %s to %s\n", from, to);
  return failed ? -1 : 0;
}

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
  /* At once when the cache has it; else the service brings it. */
  const int failed = session == NULL || qx_storage_wait_for_file(session) != QX_STORAGE_READY ||
                     copy_file(qx_storage_get_file_path(session), file) != 0;
  qx_storage_release_session(session);
  return failed;
}

static int work(int argc, char **argv) {
  const char *const task = argc > 2 ? argv[2] : "";
  if (argc == 7 && strcmp(task, "store") == 0)
    return store(atoi(argv[3]), atoi(argv[4]), atoi(argv[5]), argv[6]);
  if (argc == 6 && strcmp(task, "fetch") == 0) return fetch(argv[3], argv[4], argv[5]);
  if (argc == 5 && strcmp(task, "delete") == 0)
    return qx_storage_delete(QX_STORAGE_RECORDING, argv[3], "s3", argv[4]) != 0;
  fputs(
      "usage: recording BASE store CLIENT USER ID FILE\n"
      "       recording BASE fetch NAME LOCATION FILE\n"
      "       recording BASE delete NAME LOCATION\n",
      stderr);
  return 2;
}

int main(int argc, char **argv) {
  if (argc < 3) return work(argc, argv);
  qx_sql_pool_init(); /* once per process, before anything that asks the database */
  if (qx_storage_initialize(argv[1], NULL) != 0 || qx_transfer_start() != 0) {
    fputs("Cannot set storage up: the log says why\n", stderr);
    return 1;
  }
  const int status = work(argc, argv);
  qx_transfer_stop(); /* ends what still runs */
  qx_storage_cleanup();
  qx_sql_pool_destroy();
  return status;
}
