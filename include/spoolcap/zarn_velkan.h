/* Set-up of the cache client from the platform's files: servers and database of the partition
 * "main", and the syslog levels of the client library. One thread at a time; the lookups call it
 * themselves when they need it first. */
#ifndef SPOOLCAP_ZARN_VELKAN_H
#define SPOOLCAP_ZARN_VELKAN_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

struct vk_client;

/* Creates the client and stores it through `client` first; it stays there when a later step fails
 * and is the caller's. 0 when a server was added and the credentials of "main" were found, else -1.
 * Call it under the cache write lock. */
int ast_vk_init(struct vk_client **client);

/* Turns on the client's syslog for level words joined by "|" (ERROR, DEBUG, EVENT, NOTICE,
 * WARNING). 0 when none was known, else the library's status. */
int add_vk_syslog_(struct vk_client *client, const char *levels);

/* Registers the server of one "partition:name1:name2:host:port" value. 0; 1 when the value is
 * malformed or of another partition than "main"; otherwise the library's status. */
int add_vk_srv_(struct vk_client *client, const char *value);

/* Forwards to vsyslog. */
void log_wrap(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

SPOOLCAP_END_DECLARATIONS

#endif
