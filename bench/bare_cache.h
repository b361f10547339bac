// A bare connection to the cache of a sandbox, for what lookups are measured against.
#ifndef BENCH_BARE_CACHE_H
#define BENCH_BARE_CACHE_H

#include <hiredis/hiredis.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/base/owner.h"
#include "tests/support/sandbox.h"

using redis_connection = std::unique_ptr<redisContext, call_to_release<redisFree>>;
using redis_reply = std::unique_ptr<redisReply, call_to_release<freeReplyObject>>;

inline redis_connection connect_redis(const support::sandbox &box) {
  redis_connection connection(redisConnectUnix(support::shared_servers().redis_socket.c_str()));
  const redis_reply selected(
      static_cast<redisReply *>(redisCommand(connection.get(), "SELECT %d", box.cache_database())));
  if (selected == nullptr || selected->type != REDIS_REPLY_STATUS) abort();
  return connection;
}

// Reads one field, which must be there.
inline void bare_hget(redisContext *connection, const char *key, const char *field) {
  const char *argv[] = {"HGET", key, field};
  const size_t lengths[] = {4, strlen(key), strlen(field)};
  const redis_reply reply(
      static_cast<redisReply *>(redisCommandArgv(connection, 3, argv, lengths)));
  if (reply == nullptr || reply->type != REDIS_REPLY_STRING) abort();
}

#endif
