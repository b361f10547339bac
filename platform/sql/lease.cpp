// Keeps connections for reuse, and chooses between master and replicas.
// Called from any thread; each shard has a lock, and none is held while connecting.
#include "platform/sql/lease.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/sql/lag.h"

namespace {

using std::chrono::seconds;

// A master is the last resort of its shard. One that refuses at once is asked again each time, as
// that costs nothing. One that let its caller wait is skipped for no longer than this.
constexpr seconds longest_master_pause{5};
constexpr seconds slow_failure{1};
// So short a time that a look at the socket would tell nothing new.
constexpr std::chrono::milliseconds just_used{2};

// What the search below decided to try next.
struct attempt {
  sql_server *server;
  std::optional<idle_connection> kept;
};

// Servers that were tried in vain in one search.
using tried_list = std::vector<const sql_server *>;

// Called with the lock of the shard held: `down_until` is written by other threads.
bool may_try(const sql_server &server, const tried_list &tried, sql_clock::time_point now) {
  return server.down_until <= now && std::find(tried.begin(), tried.end(), &server) == tried.end();
}

// The master or slave to try: one that has a connection ready if any, else the next in turn.
// Slaves take turns; masters are taken in the order of the file.
sql_server *choose(fr_sql_shard &shard, bool is_master, const tried_list &tried) {
  const auto now = sql_clock::now();
  std::vector<sql_server *> candidates;
  for (sql_server &server : shard.servers) {
    if (server.is_master != is_master || !may_try(server, tried, now)) continue;
    if (!server.idle.empty()) return &server;
    candidates.push_back(&server);
  }
  if (candidates.empty()) return nullptr;
  return candidates[is_master ? 0 : shard.next_slave++ % candidates.size()];
}

// A read prefers a slave. The master is asked when no slave may be tried.
std::optional<attempt> next_attempt(fr_sql_shard &shard, sql_purpose purpose,
                                    const tried_list &tried) {
  const std::lock_guard guard(shard.lock);
  keep_to_own_connections(shard);
  sql_server *server = purpose == sql_purpose::read ? choose(shard, false, tried) : nullptr;
  if (server == nullptr) server = choose(shard, true, tried);
  if (server == nullptr) return std::nullopt;
  attempt result = {server, std::nullopt};
  if (!server->idle.empty()) {
    // The one used last is the least likely to have been closed meanwhile.
    result.kept = std::move(server->idle.back());
    server->idle.pop_back();
  }
  return result;
}

// From cheap to dear: the clock, one system call, a question to the server. A connection that fails
// is closed with its owner, and the search goes on.
bool still_serves(fr_sql_shard &shard, sql_server &server, const idle_connection &kept) {
  const std::chrono::duration<double> idled = sql_clock::now() - kept.since;
  // One that was in use a moment ago is as good as one that is in use: a walk takes and gives it
  // back for each statement.
  const bool is_within_limit = idled.count() <= the_sql_pool().idle_limit;
  if (is_within_limit && idled < just_used) return true;
  if (is_closed_by_server(kept.handle.get())) return false;
  if (is_within_limit) return true;
  if (answers_ping(kept.handle.get())) return true;
  // The others have idled for as long or longer; asking each of them could take as long again.
  std::vector<idle_connection> suspect;
  const std::lock_guard guard(shard.lock);
  suspect.swap(server.idle);
  return false;
}

bool connect(fr_sql_shard &shard, sql_server &server, mysql_handle &handle) {
  const auto start = sql_clock::now();
  const bool connected = open_connection(handle, shard.credentials, server.address);
  const auto end = sql_clock::now();
  const char *kind = server.is_master ? "master" : "slave";
  if (connected) {
    SQL_LOG(FR_LOG_DEBUG, "Connected to SQL %s %s of shard %s.\n", kind,
            server.address.text().c_str(), shard.id.c_str());
  } else {
    SQL_LOG(FR_LOG_WARNING, "Failed to connect to SQL %s %s of shard %s: %s\n", kind,
            server.address.text().c_str(), shard.id.c_str(),
            handle ? mysql_error(handle.get()) : "out of memory");
  }
  // A success ends the pause that another thread may have set in the meantime.
  seconds pause{connected ? 0 : the_sql_pool().down_time.load()};
  if (server.is_master) {
    pause = end - start < slow_failure ? seconds{0} : std::min(pause, longest_master_pause);
  }
  const std::lock_guard guard(shard.lock);
  server.down_until = end + pause;
  return connected;
}

}  // namespace

sql_lease take_connection(fr_sql_shard &shard, sql_purpose purpose) {
  // The loop ends: each round uses up a kept connection or adds to the servers tried. Nothing is
  // opened under the lock, so one slow server does not stop other threads.
  tried_list tried;
  mysql_handle failed;
  while (auto next = next_attempt(shard, purpose, tried)) {
    mysql_handle handle;
    if (next->kept) {
      if (!still_serves(shard, *next->server, *next->kept)) continue;
      handle = std::move(next->kept->handle);
    } else if (!connect(shard, *next->server, handle)) {
      failed = std::move(handle);
      tried.push_back(next->server);
      continue;
    }
    const lag_verdict verdict = judge_lag(shard, *next->server, handle.get());
    if (verdict == lag_verdict::serves) return {std::move(handle), next->server};
    tried.push_back(next->server);
    if (verdict == lag_verdict::exceeds) {
      return_connection(shard, {std::move(handle), next->server});
    } else {
      failed = std::move(handle);
    }
  }
  return {std::move(failed), nullptr};
}

void return_connection(fr_sql_shard &shard, sql_lease lease) noexcept {
  if (lease.server == nullptr) return;
  // Without memory to keep it, it is closed.
  no_throw([&] {
    // The next taker would commit or lose the work of another one.
    const bool in_transaction = (lease.handle->server_status & SERVER_STATUS_IN_TRANS) != 0;
    const std::lock_guard guard(shard.lock);
    if (in_transaction || shard.retired) return;
    lease.server->idle.push_back({std::move(lease.handle), sql_clock::now()});
  });
}
