/* Copying a file, for the components that the demos play. */
#ifndef DEMO_COPY_FILE_H
#define DEMO_COPY_FILE_H

#include <stdio.h>

/* 0, or -1 with half a copy left behind. */
static inline int copy_file(const char *from, const char *to) {
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

#endif
