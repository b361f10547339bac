/* store ACCOUNT KIND SOURCE TARGET
 *
 * What a component does when it stores media for an account: it asks whether there is room, writes
 * the file, and adds its size to the figures of the account and of all accounts above it.
 *
 *   cc -std=c11 store.c -o store $(pkg-config --cflags --libs spoolcap)
 *   ./store 12 sound /tmp/hello.wav /var/lib/asterisk/sounds/.12/hello.wav */
#include <errno.h>
#include <inttypes.h>
#include <spoolcap/quota.h>
#include <spoolcap/sqlsession.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum status {
  STORED,
  WRONG_USAGE,
  NO_ANSWER,   /* whether there is room could not be found out */
  FULL,        /* the account, or one above it, has used up its storage */
  NOT_WRITTEN, /* the file could not be copied */
  NOT_COUNTED  /* it was, but the figures do not have it */
};

/* The kinds by the names of their quota files, in the order of enum quota_kind; -1 for others. */
static int kind_of(const char *name) {
  static const char *const names[] = {"fax", "sound", "recording", "voicemail", "music"};
  for (int kind = QUOTA_FAX; kind < QUOTA_ALL_KINDS; kind++) {
    if (strcmp(names[kind], name) == 0) return kind;
  }
  return -1;
}

static enum status check_room(int account, unsigned kind) {
  const int result = quota_verify(account, kind);
  if (result == 0) return STORED;
  if (result > 0) {
    /* Which account is full, and its level: 100 a user, 50 a client, 10 a reseller. */
    fprintf(stderr, "No room: account %d (level %d) is full\n", result % 10000000,
            result / 10000000);
    return FULL;
  }
  if (result == -2) {
    fprintf(stderr, "Account %d, or one above it, is not known\n", account);
  } else {
    fprintf(stderr, "Cannot verify the quota of account %d: the log says why\n", account);
  }
  return NO_ANSWER;
}

/* Copies all that `source` has; the number of bytes, or -1. */
static int64_t copy(FILE *source, FILE *target) {
  char block[65536];
  int64_t total = 0;
  size_t count;
  while ((count = fread(block, 1, sizeof(block), source)) > 0) {
    if (fwrite(block, 1, count, target) != count) return -1;
    total += (int64_t)count;
  }
  return ferror(source) || fflush(target) != 0 ? -1 : total;
}

/* Copies a file to a new one; its size, or -1 with nothing left behind. */
static int64_t write_file(const char *source_path, const char *target_path) {
  FILE *source = fopen(source_path, "rb");
  /* "x": a file that is there was counted before. */
  FILE *target = source != NULL ? fopen(target_path, "wbx") : NULL;
  int64_t size = target != NULL ? copy(source, target) : -1;
  int cause = errno; /* of the first failure, before others follow */
  if (target != NULL && fclose(target) != 0 && size >= 0) {
    cause = errno;
    size = -1;
  }
  if (size < 0) {
    fprintf(stderr, "Cannot copy %s to %s: %s\n", source_path, target_path, strerror(cause));
    if (target != NULL) remove(target_path);
  }
  if (source != NULL) fclose(source);
  return size;
}

static enum status store(int account, unsigned kind, const char *source, const char *target) {
  const enum status room = check_room(account, kind);
  if (room != STORED) return room;

  const int64_t size = write_file(source, target);
  if (size < 0) return NOT_WRITTEN;

  /* -1: wait for each quota file as long as usual. One that stays locked is put right by the next
   * refresh, so that only trouble with the database or the account is a failure here. */
  if (quota_update(account, kind, size, -1) != 0) {
    fprintf(stderr, "%s is stored, but counts only from the next refresh on\n", target);
    return NOT_COUNTED;
  }
  printf("%s: %" PRId64 " bytes for account %d\n", target, size, account);
  return STORED;
}

int main(int argc, char **argv) {
  const int account = argc == 5 ? atoi(argv[1]) : 0;
  const int kind = argc == 5 ? kind_of(argv[2]) : -1;
  if (account <= 0 || kind < 0) {
    fprintf(stderr,
            "usage: store ACCOUNT KIND SOURCE TARGET\n"
            "ACCOUNT is a client.id; KIND is fax, sound, recording, voicemail or music\n");
    return WRONG_USAGE;
  }
  qx_sql_pool_init(); /* once per process, before anything that asks the database */
  const enum status status = store(account, (unsigned)kind, argv[3], argv[4]);
  qx_sql_pool_destroy();
  return status;
}
