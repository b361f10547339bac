// Asks replicas how far they are behind, and passes over those that are too far.
// Asks outside of the lock of the shard, which only guards what was found out.
#include "platform/sql/lag.h"

#include <mysqld_error.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

namespace {

using std::chrono::seconds;

constexpr seconds between_looks{2};

// What a replica reported of its lag.
struct lag_reading {
  bool replicates = false;     // false: it has no master, or may not tell
  std::optional<seconds> lag;  // none when its replication does not run
};

// A row for each master; its data is as old as that of the master it is farthest behind.
lag_reading reading_of(MYSQL_RES *rows) {
  if (rows == nullptr) return {};
  const MYSQL_FIELD *const fields = mysql_fetch_fields(rows);
  unsigned field = 0;
  while (field < mysql_num_fields(rows) &&
         std::strcmp(fields[field].name, "Seconds_Behind_Master") != 0) {
    ++field;
  }
  if (field == mysql_num_fields(rows)) return {};
  lag_reading worst;
  while (const MYSQL_ROW row = mysql_fetch_row(rows)) {
    if (row[field] == nullptr) return {true, std::nullopt};
    const seconds lag{std::strtol(row[field], nullptr, 10)};
    worst = {true, std::max(lag, worst.lag.value_or(lag))};
  }
  return worst;
}

// All connections of its replication, also those with a name. A server that does not know the
// statement shows all of them by the older one.
bool ask_for_lag(MYSQL *mysql, sql_result &rows) {
  return ask_in_time(mysql, "SHOW ALL SLAVES STATUS", rows) ||
         (mysql_errno(mysql) == ER_PARSE_ERROR && ask_in_time(mysql, "SHOW SLAVE STATUS", rows));
}

// Logs when it is news. The caller holds the shard's lock.
void note(const fr_sql_shard &shard, sql_server &server, lag_state state, const char *reason = "") {
  const lag_state before = std::exchange(server.lag, state);
  const std::string name = server.address.text();
  if (before == state) return;
  if (state == lag_state::untold) {
    SQL_LOG(FR_LOG_WARNING, "SQL slave %s of shard %s tells no lag and serves all the same: %s\n",
            name.c_str(), shard.id.c_str(), reason);
  } else if (state == lag_state::exceeds) {
    SQL_LOG(FR_LOG_WARNING, "SQL slave %s of shard %s is passed over: it lags\n", name.c_str(),
            shard.id.c_str());
  } else if (before == lag_state::exceeds) {
    SQL_LOG(FR_LOG_NOTICE, "SQL slave %s of shard %s serves again\n", name.c_str(),
            shard.id.c_str());
  }
}

}  // namespace

lag_verdict judge_lag(fr_sql_shard &shard, sql_server &server, MYSQL *mysql) {
  const seconds most{the_sql_pool().largest_lag.load()};
  if (server.is_master || most < seconds{0}) return lag_verdict::serves;
  const auto asked = sql_clock::now();
  {
    const std::lock_guard guard(shard.lock);
    const bool exceeds = server.lag == lag_state::exceeds;
    if (asked < server.next_look) return exceeds ? lag_verdict::exceeds : lag_verdict::serves;
  }
  sql_result rows;
  const bool answered = ask_for_lag(mysql, rows);
  if (!answered && is_lost(mysql)) return lag_verdict::lost;
  const lag_reading reading = reading_of(rows.get());

  const std::lock_guard guard(shard.lock);
  server.next_look = asked + between_looks;
  if (!reading.replicates) {
    note(shard, server, lag_state::untold, answered ? "it is no replica" : mysql_error(mysql));
    return lag_verdict::serves;
  }
  if (reading.lag) server.data_from = asked - *reading.lag;
  // While its replication does not run, its data is as old as it was, and the time since. If
  // this process never saw it run, that age is not known.
  if (server.data_from != sql_clock::time_point{} && asked - server.data_from <= most) {
    note(shard, server, lag_state::fits);
    return lag_verdict::serves;
  }
  note(shard, server, lag_state::exceeds);
  server.down_until = server.next_look;
  return lag_verdict::exceeds;
}
