// How far a replica is behind its master. Internal to platform/sql.
#ifndef PLATFORM_SQL_LAG_H
#define PLATFORM_SQL_LAG_H

#include "platform/sql/pool.h"

enum class lag_verdict {
  serves,
  exceeds,  // the pool skips it; the connection is as good as before
  lost      // the connection was lost when the replica was asked
};

// Whether a server may serve as far as its lag goes. A replica is asked every two seconds at most,
// and only when a largest lag is set. One that reports no lag, for want of a right or of
// replication, serves; that is logged once.
lag_verdict judge_lag(fr_sql_shard &shard, sql_server &server, MYSQL *mysql);

#endif
