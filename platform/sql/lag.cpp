// Asks replicas how far they are behind, and passes over those that are too far.
#include "platform/sql/lag.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

namespace {

using std::chrono::seconds;

constexpr seconds between_looks{2};

// What a replica told of its lag.
struct lag_reading {
  bool replicates = false;     // false: it has no master, or may not tell
  std::optional<seconds> lag;  // none when its replication does not run
};

lag_reading reading_of(MYSQL_RES *rows) {
  const MYSQL_ROW row = rows == nullptr ? nullptr : mysql_fetch_row(rows);
  if (row == nullptr) return {};
  const MYSQL_FIELD *const fields = mysql_fetch_fields(rows);
  for (unsigned i = 0; i < mysql_num_fields(rows); ++i) {
    if (std::strcmp(fields[i].name, "Seconds_Behind_Master") != 0) continue;
    if (row[i] == nullptr) return {true, std::nullopt};
    return {true, seconds(std::strtol(row[i], nullptr, 10))};
  }
  return {};
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
  const bool answered = ask_in_time(mysql, "SHOW SLAVE STATUS", rows);
  if (!answered && is_lost(mysql)) return lag_verdict::lost;
  const lag_reading reading = reading_of(rows.get());

  const std::lock_guard guard(shard.lock);
  server.next_look = asked + between_looks;
  if (!reading.replicates) {
    note(shard, server, lag_state::untold, answered ? "it is no replica" : mysql_error(mysql));
    return lag_verdict::serves;
  }
  if (reading.lag) server.data_from = asked - *reading.lag;
  // While its replication does not run, its data is as old as it was, and the time since.
  if (asked - server.data_from <= most) {
    note(shard, server, lag_state::fits);
    return lag_verdict::serves;
  }
  note(shard, server, lag_state::exceeds);
  server.down_until = server.next_look;
  return lag_verdict::exceeds;
}
