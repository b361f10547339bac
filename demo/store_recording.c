/* store_recording BASE CLIENT USER ID FILE
 *
 * Stores a copy of a file as the recording of row ID, as a component of the platform does, and
 * prints where it is. BASE is the directory of all media. */
#include <stdio.h>
#include <stdlib.h>

#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_storage.h>

static int copy(const char *from, const char *to) {
  FILE *source = fopen(from, "rb");
  FILE *target = source != NULL ? fopen(to, "wb") : NULL;
  int failed = target == NULL;
  char block[65536];
  size_t count = 0;
  while (!failed && (count = fread(block, 1, sizeof(block), source)) > 0)
    failed = fwrite(block, 1, count, target) != count;
  if (source != NULL) {
    if (ferror(source)) failed = 1;
    if (fclose(source) != 0) failed = 1;
  }
  if (target != NULL && fclose(target) != 0) failed = 1;
  return failed ? -1 : 0;
}

int main(int argc, char **argv) {
  if (argc != 6) return 2;
  qx_sql_pool_init();
  if (qx_storage_initialize(argv[1], NULL) != 0) return 1;
  qx_storage_session_t *session =
      qx_storage_session_create(QX_STORAGE_RECORDING, atoi(argv[2]), atoi(argv[3]), "wav");
  int failed = session == NULL || copy(argv[5], qx_storage_get_temp_file(session)) != 0 ||
               qx_storage_commit_file(session, atoi(argv[4])) != 0;
  if (!failed) puts(qx_storage_get_file_path(session));
  qx_storage_release_session(session); /* a file that was not stored goes with it */
  qx_storage_cleanup();
  qx_sql_pool_destroy();
  return failed;
}
