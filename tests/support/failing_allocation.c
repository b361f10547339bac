/* Loaded in front of a program: its allocation of the number in FAIL_AT fails, and with FAIL_ON set
 * every later one as well. How many there were goes to the file FAIL_COUNT. A program that has this
 * linked in sets the two numbers below itself. Libraries that do not survive a failure themselves
 * are spared: the database client, the cryptography, the name service.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <grp.h>
#include <link.h>
#include <netdb.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *block, size_t size);

long allocations_made;
long failing_allocation; /* 0: none */
static int fails_on;
static __thread int in_name_service;

static int is_spared(void *caller) {
  struct dl_find_object object;
  if (_dl_find_object(caller, &object) != 0) return 1;
  const char *const name = object.dlfo_link_map->l_name;
  return strstr(name, "libmariadb") != NULL || strstr(name, "libcrypto") != NULL ||
         strstr(name, "libnss_wrapper") != NULL || strstr(name, "/ld-") != NULL;
}

static int fails(void *caller) {
  if (in_name_service || is_spared(caller)) return 0;
  ++allocations_made;
  if (failing_allocation == 0 || allocations_made < failing_allocation) return 0;
  if (allocations_made > failing_allocation && !fails_on) return 0;
  errno = ENOMEM;
  return 1;
}

void *malloc(size_t size) {
  return fails(__builtin_return_address(0)) ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  return fails(__builtin_return_address(0)) ? NULL : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
  return fails(__builtin_return_address(0)) ? NULL : __libc_realloc(block, size);
}

char *strdup(const char *text) {
  const size_t size = strlen(text) + 1;
  char *const copy = fails(__builtin_return_address(0)) ? NULL : __libc_malloc(size);
  return copy == NULL ? NULL : memcpy(copy, text, size);
}

/* The name service allocates for itself. */
#define SPARE(function, entry_type)                                                       \
  int function(const char *name, struct entry_type *entry, char *text, size_t size,       \
               struct entry_type **result) {                                              \
    int (*next)(const char *, struct entry_type *, char *, size_t, struct entry_type **); \
    *(void **)&next = dlsym(RTLD_NEXT, #function);                                        \
    in_name_service = 1;                                                                  \
    const int error = next(name, entry, text, size, result);                              \
    in_name_service = 0;                                                                  \
    return error;                                                                         \
  }
SPARE(getpwnam_r, passwd)
SPARE(getgrnam_r, group)

struct servent *getservbyname(const char *name, const char *protocol) {
  (void)name, (void)protocol;
  return NULL;
}

__attribute__((constructor)) static void take_settings(void) {
  const char *const at = getenv("FAIL_AT");
  failing_allocation = at == NULL ? 0 : atol(at);
  fails_on = getenv("FAIL_ON") != NULL;
}

__attribute__((destructor)) static void tell_count(void) {
  const long count = allocations_made;
  const char *const path = getenv("FAIL_COUNT");
  FILE *const file = path == NULL ? NULL : fopen(path, "w");
  if (file == NULL) return;
  fprintf(file, "%ld", count);
  fclose(file);
}
