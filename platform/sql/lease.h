// Taking a connection out of a shard, and giving it back. Internal to platform/sql.
#ifndef PLATFORM_SQL_LEASE_H
#define PLATFORM_SQL_LEASE_H

#include "platform/sql/pool.h"

// A connection out of a shard. Without a server it is none, or was lost, and the handle, when there
// is one, has the reason.
struct sql_lease {
  mysql_handle handle;
  sql_server *server = nullptr;
};

// Only a SELECT is a read. What must see the newest data asks for a write, and gets the master.
enum class sql_purpose { read, write };

// Takes a kept connection or opens one. Servers are chosen under the lock, connected outside it.
sql_lease take_connection(fr_sql_shard &shard, sql_purpose purpose);

// Keeps the connection for the next taker, unless it is lost or a transaction is open.
void return_connection(fr_sql_shard &shard, sql_lease lease) noexcept;

#endif
