// The process-wide pool, and what a child of fork may use of it.
// Keeps no lock of its own: its users take those of the pool and of the shards.
#include "platform/sql/pool.h"

#include <utility>

#include "platform/base/process.h"

void keep_to_own_connections(fr_sql_shard &shard) {
  const long process = process_generation();
  if (shard.process == process) return;
  for (sql_server &server : shard.servers) {
    for (idle_connection &inherited : server.idle) abandon(std::move(inherited.handle));
    server.idle.clear();
  }
  shard.process = process;
}

sql_pool &the_sql_pool() noexcept {
  static constinit never_destroyed<sql_pool> pool;
  return pool.value;
}
