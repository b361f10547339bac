// The pool behind the C face: shards, their servers, and the connections kept for each.
// Internal to platform/sql.
#ifndef PLATFORM_SQL_POOL_H
#define PLATFORM_SQL_POOL_H

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base/diagnostics.h"
#include "platform/sql/connection.h"

// A kept connection, and since when it has been idle.
struct idle_connection {
  mysql_handle handle;
  sql_clock::time_point since;
};

// What was last found out of a replica's lag, beside the largest one that is allowed.
enum class lag_state {
  unknown,
  fits,
  exceeds,
  untold  // the server does not say
};

// One line DB_MASTER or DB_SLAVE, with its state. Guarded by the lock of its shard.
struct sql_server {
  sql_address address;
  bool is_master = false;
  // Until then it is not tried; in the past for a server that is up.
  sql_clock::time_point down_until = {};
  std::vector<idle_connection> idle = {};  // the one used last is at the end

  // Of a slave, and only when a largest lag is set.
  lag_state lag = lag_state::unknown;
  sql_clock::time_point next_look = {};  // until then the verdict stays
  sql_clock::time_point data_from = {};  // what was written before is there
};

// What the C face calls a shard. Servers are only ever added, so that a session may keep the
// address of the one it is connected to.
struct fr_sql_shard {
  std::string id;
  sql_credentials credentials;

  std::mutex lock;  // guards all that follows
  std::deque<sql_server> servers;
  // Counts the turns of slaves; which one it is follows from those that may be tried then.
  size_t next_slave = 0;
  long process = 0;      // whose these connections are, as its generation
  bool retired = false;  // the pool has let go of this shard: nothing is kept any more
};

// Drops what a child of fork inherited: two processes that share a connection read each other's
// answers. The caller holds the shard's lock.
void keep_to_own_connections(fr_sql_shard &shard);

// Settings are read on every use, without the lock. Shards are shared with their sessions.
struct sql_pool {
  std::mutex lock;  // guards the list
  std::vector<std::shared_ptr<fr_sql_shard>> shards;

  std::atomic<double> idle_limit = 60.0;  // seconds
  std::atomic<int> down_time = 30;        // seconds
  std::atomic<int> largest_lag = -1;      // seconds; negative: slaves serve whatever their lag
  std::atomic<int> verbosity = 0;
};

// The process-wide pool. It is never destroyed: a process may end with sessions out.
sql_pool &the_sql_pool() noexcept;

// Logs in the name of the pool when its verbosity allows; levels are priorities.
#define SQL_LOG(priority, ...)                                                 \
  do {                                                                         \
    if ((priority) <= the_sql_pool().verbosity) QX_LOG(priority, __VA_ARGS__); \
  } while (false)

#endif
