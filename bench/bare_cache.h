// A bare connection to the cache of a sandbox, for what lookups are measured against.
#ifndef BENCH_BARE_CACHE_H
#define BENCH_BARE_CACHE_H

#include <cstdlib>
#include <cstring>

#include "platform/velkan/handles.h"
#include "tests/support/sandbox.h"

inline vk_context connect_redis(const support::sandbox &box) {
  vk_context connection(redisConnectUnix(support::shared_servers().redis_socket.c_str()));
  const vk_reply selected =
      own_reply(redisCommand(connection.get(), "SELECT %d", box.cache_database()));
  if (selected == nullptr || selected->type != REDIS_REPLY_STATUS) std::abort();
  return connection;
}

// Reads one field, which must be there.
inline void bare_hget(redisContext *connection, const char *key, const char *field) {
  const char *argv[] = {"HGET", key, field};
  const size_t lengths[] = {4, std::strlen(key), std::strlen(field)};
  const vk_reply reply = own_reply(redisCommandArgv(connection, 3, argv, lengths));
  if (reply == nullptr || reply->type != REDIS_REPLY_STRING) std::abort();
}

#endif
