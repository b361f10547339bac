/* A host of the library that has functions of its own under names that the library exports too,
 * with other meanings, and exports them. Each side has to reach its own. */
#include <spoolcap/quota.h>
#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_user.h>
#include <stdio.h>
#include <stdlib.h>

static int calls;

/* The headers that declare these for the library are not included. */
int ast_pad_id(int id, unsigned width);
int get_binding(const char *name);

int ast_pad_id(int id, unsigned width) {
  calls++;
  return id * (int)width;
}

int get_binding(const char *name) {
  calls++;
  return name[0];
}

int main(int argc, char **argv) {
  const int account = argc == 2 ? atoi(argv[1]) : 0;
  qx_sql_pool_init();
  char *limit = qx_account_get_pref(account, "max_sound"); /* looks up a binding */
  int64_t total = -1;
  const int refreshed = quota_update_slow(account, QUOTA_SOUND, &total, 1); /* pads the id */
  printf("library: limit %s, refresh %d of %d bytes, %d calls of the host\n",
         limit != NULL ? limit : "none", refreshed, (int)total, calls);
  free(limit);
  printf("host: ast_pad_id %d, get_binding %d\n", ast_pad_id(2, 3), get_binding("a"));
  qx_sql_pool_destroy();
  return 0;
}
