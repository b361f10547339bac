/* Client of the distributed key-value cache, over hiredis.
 *
 * The servers of a client are one replicated group. The client uses the first master that answers,
 * and moves on when that one is lost or turns read-only: a fail-over needs no new configuration. It
 * connects at the first command (500 ms), and then gives each command 2 s. A failure is followed by
 * a pause of 5 s in which commands fail at once; of 1 s when a replica answers and no master does,
 * as during a fail-over.
 *
 * All waiting of a process, whatever its clients, has one budget. In any ten minutes commands take
 * no more than 5 s, and half a millisecond each, however slow the cache is. When the budget is
 * spent, commands fail at once. A host name is looked up at the first connect, and again when its
 * addresses do not serve; that takes as long as the resolver does, and is charged afterwards. An
 * address costs nothing.
 *
 * Keys, fields and values are counted byte strings. Functions return 0 on success and an error
 * code that vk_strerror explains otherwise. They may be called from any thread, and in a child of
 * fork, which gets a connection of its own. What they hand out is malloc'ed and the caller's. */
#ifndef PLATFORM_VELKAN_VELKAN_H
#define PLATFORM_VELKAN_VELKAN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Error codes. 1 is also what the cache layer reports when it has no client at all. */
enum {
  VK_OK = 0,
  VK_ERR_CLIENT = 1,    /* no client, or no server was added */
  VK_ERR_DOWN = 2,      /* no server answers, or none is asked: a pause, or the budget is spent */
  VK_ERR_IO = 3,        /* the connection broke or timed out during the command */
  VK_ERR_REPLY = 4,     /* the server answered with an error, or with the wrong type */
  VK_ERR_NOT_FOUND = 5, /* a hash read whole is not there */
  VK_ERR_ARGUMENT = 6,
  VK_ERR_MEMORY = 7
};

/* Levels of the library's own syslog output. */
enum {
  VK_LOG_ERROR = 0x01,
  VK_LOG_DEBUG = 0x02,
  VK_LOG_EVENT = 0x04,
  VK_LOG_NOTICE = 0x08,
  VK_LOG_WARNING = 0x10
};

/* Made once by the host and handed to each client that it creates. */
typedef struct vk_mm vk_mm_t;

/* A client carries the handle for data that need not persist inside it; both name the same
 * servers, database and keys. Only `secondary` may be read from outside, and a secondary handle
 * may stand wherever a client is asked for, except in vk_client_destroy. */
typedef struct vk_client {
  struct vk_client *secondary; /* in a secondary handle: itself */
  struct vk_state *state;
} vk_client_t;

/* The allocator for what the client hands out: malloc's, as callers use free. NULL when one of the
 * four is missing. */
vk_mm_t *vk_mm_create(void *(*allocate)(size_t), void *(*allocate_cleared)(size_t, size_t),
                      void *(*resize)(void *, size_t), void (*release)(void *));
/* NULL is ignored. Clients keep nothing of it, so it may go before they do. */
void vk_mm_destroy(vk_mm_t *mm);

/* A client without servers, or NULL. The two options are the platform's (1 and 2) and are not
 * used; `mm` may be destroyed right after; `reserved` must be NULL. */
vk_client_t *vk_client_create(int option1, int option2, const vk_mm_t *mm, const void *reserved);
/* Closes the connection. No other thread may use either handle from now on. NULL is ignored. */
void vk_client_destroy(vk_client_t *client);

/* Turns on syslog for the levels in `mask` (VK_LOG_*). */
int vk_enable_syslog(vk_client_t *client, unsigned mask);

/* Adds a server to the end of the group; a host that begins with "/" is a Unix socket. `name` is
 * for the log. VK_ERR_ARGUMENT on an empty host or, for TCP, a port outside 1 to 65535. */
int vk_server_add(vk_client_t *client, const char *host, int port, const char *name);

/* The key (password) sent with AUTH on every connect. */
int vk_set_database_key(vk_client_t *client, int database, const char *key, size_t key_length);

/* Takes the database of this number from the next connect on; `flags` must be 0. */
int vk_select(vk_client_t *client, int database, int flags);

/* For a daemon whose work is to wait for the cache: the client is neither charged to nor held to
 * the budget of the process, and pauses for 500 ms after a failure. A server that is lost is
 * replaced within the 2 s of a command. */
int vk_set_patient(vk_client_t *client);

/* Text of an error code; static. */
const char *vk_strerror(int code);

/* One field of a hash; *value is NULL when the field or the hash is absent. `space` (always "")
 * and `version` (always 1) are passed as the platform does and select nothing here. */
int vk_hget_whole(vk_client_t *client, const char *key, size_t key_length, const char *field,
                  size_t field_length, char **value, size_t *value_length, const char *space,
                  int version);

/* Several fields of one hash, at least one. *values has `field_count` slots, NULL where absent;
 * *entry_count is the number of slots. The caller frees each value, the array, and *buffer (which
 * may be NULL). */
int vk_hmget_whole(vk_client_t *client, const char *key, size_t key_length,
                   const char *const *fields, size_t field_count, const size_t *field_lengths,
                   char ***values, size_t *entry_count, char **buffer, const char *space,
                   int version);

/* The values of all fields of one hash. The caller frees each value, the array and *buffer. */
int vk_hgetall_whole(vk_client_t *client, const char *key, size_t key_length, size_t *entry_count,
                     char ***values, char **buffer, int offset, int limit, const char *space,
                     int version);

/* All fields of one hash and their values, as two parallel arrays. The caller frees every string
 * and both arrays. */
int vk_hgetall(vk_client_t *client, const char *key, size_t key_length, size_t *count,
               char ***fields, char ***values, int offset, int limit);

/* Writes one field. `persistent` is kept for a server that tells the two kinds apart. */
int vk_hset(vk_client_t *client, const char *key, size_t key_length, const char *field,
            size_t field_length, const char *value, size_t value_length, int persistent);

/* Writes several fields, at least one. */
int vk_hmset(vk_client_t *client, const char *key, size_t key_length, const char *const *fields,
             size_t field_count, const size_t *field_lengths, const char *const *values,
             const size_t *value_lengths, int persistent);

/* Adds a member of a sorted set, or gives it this score, which the server keeps to the last bit.
 * `value` is a text of the member's own: it is accepted for a server that has room for one, and is
 * not stored here. */
int vk_zaddval(vk_client_t *client, const char *key, size_t key_length, const char *member,
               size_t member_length, double score, const char *value, size_t value_length);

/* Non-zero when the key exists or the server could not be asked, 0 when it does not exist. */
int vk_exists(vk_client_t *client, const char *key, size_t key_length);

#ifdef __cplusplus
}
#endif

#endif
