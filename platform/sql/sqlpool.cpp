// The C face of the pool: its settings, sessions, and statements on them.
// What every module's statements go through; choosing a server is for lease.cpp.
#include "platform/sql/sqlpool.h"

#include <errmsg.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/base/text.h"
#include "platform/sql/lag.h"
#include "platform/sql/lease.h"
#include "platform/sql/statement.h"

struct fr_sql_conn {
  std::shared_ptr<fr_sql_shard> shard;
  sql_lease connection;  // never without a handle; has no server once it is lost
};

namespace {

constexpr char out_of_memory[] = "Out of memory";

// Starting the client library makes the process ignore SIGPIPE. The library does not need that: it
// sends without raising the signal. A host may want to end when the reader of its output does.
bool start_client_library() {
  struct sigaction before = {};
  ::sigaction(SIGPIPE, nullptr, &before);
  const bool started = mysql_library_init(0, nullptr, nullptr) == 0;
  ::sigaction(SIGPIPE, &before, nullptr);
  return started;
}

int add_shard(std::shared_ptr<fr_sql_shard> shard) {
  if (!shard) return -1;
  sql_pool &pool = the_sql_pool();
  const std::lock_guard guard(pool.lock);
  for (const auto &other : pool.shards) {
    // Ids must be unique, as lines of servers find their shard by it.
    if (other->id != shard->id) continue;
    SQL_LOG(FR_LOG_ERROR, "The SQL shard %s is there twice.\n", shard->id.c_str());
    return -1;
  }
  pool.shards.push_back(std::move(shard));
  return 0;
}

MYSQL *handle_of(const fr_sql_conn &session) noexcept {
  return session.connection.handle.get();
}

// Leaves the text where callers look for it, as if the library had failed itself.
int fail(const fr_sql_conn &session, unsigned code, const char *text) noexcept {
  set_error(handle_of(session), code, text);
  return -1;
}

// Whether a session that reads from a slave may go on with it. One that is held for hours would
// else read from a slave that has fallen behind since. A transaction stays where it began.
bool lags(fr_sql_conn &session) {
  MYSQL *const mysql = handle_of(session);
  return (mysql->server_status & SERVER_STATUS_IN_TRANS) == 0 &&
         judge_lag(*session.shard, *session.connection.server, mysql) == lag_verdict::exceeds;
}

// Sees to it that the session holds a connection that serves the purpose. After a write it stays on
// the master, where what it wrote can be read.
int attach(fr_sql_conn &session, sql_purpose purpose) {
  sql_server *const server = session.connection.server;
  if (server == nullptr) return fail(session, CR_SERVER_GONE_ERROR, "The SQL connection was lost");
  if (server->is_master || (purpose == sql_purpose::read && !lags(session))) return 0;
  sql_lease lease = take_connection(*session.shard, purpose);
  // The session keeps its slave, which may serve later, and the error explains the statement.
  if (lease.server == nullptr) {
    if (!lease.handle) return fail(session, CR_CONNECTION_ERROR, "No SQL server can be reached");
    return fail(session, mysql_errno(lease.handle.get()), mysql_error(lease.handle.get()));
  }
  // The slave's connection goes back to the pool for other reads.
  std::swap(session.connection, lease);
  return_connection(*session.shard, std::move(lease));
  return 0;
}

// Reads everything the server answers, as the connection is of no use before that: a stored
// procedure may give several results, of which the first is kept.
bool read_results(MYSQL *mysql, sql_result &first) {
  int more = 0;
  do {
    sql_result result(mysql_store_result(mysql));
    if (!result && mysql_field_count(mysql) != 0) return false;
    if (result && !first) first = std::move(result);
    more = mysql_next_result(mysql);
  } while (more == 0);
  return more < 0;
}

int run_statement(fr_sql_conn &session, MYSQL_RES **result, const char *format, va_list arguments) {
  const c_string statement = vformat_text(format, arguments);
  if (!statement) return fail(session, CR_OUT_OF_MEMORY, out_of_memory);
  const size_t size = std::strlen(statement.get());
  const bool reads = is_read_statement({statement.get(), size});
  if (attach(session, reads ? sql_purpose::read : sql_purpose::write) != 0) return -1;

  MYSQL *const mysql = handle_of(session);
  sql_result first;
  if (mysql_real_query(mysql, statement.get(), size) != 0 || !read_results(mysql, first)) {
    // Where the library names no reason, it was short of memory in the middle of an answer.
    if (mysql_errno(mysql) == 0) set_error(mysql, CR_OUT_OF_MEMORY, out_of_memory);
    // Never a new connection in silence: a statement of a transaction would run without the others.
    if (is_lost(mysql)) session.connection.server = nullptr;
    return -1;
  }
  *result = first.release();
  return 0;
}

}  // namespace

int fr_sqlpool_init_api(const void *reserved1, const void *reserved2, double idle_limit) {
  return no_throw(-1, [=] {
    if (reserved1 != nullptr || reserved2 != nullptr || !start_client_library()) return -1;
    fr_sqlpool_destroy();
    sql_pool &pool = the_sql_pool();
    pool.idle_limit = idle_limit;
    pool.down_time = 30;
    pool.largest_lag = -1;
    return 0;
  });
}

void fr_sqlpool_verbosity_set(int level) {
  the_sql_pool().verbosity = level;
}

void fr_sqlpool_down_time_set(int seconds) {
  the_sql_pool().down_time = std::max(seconds, 0);
}

void fr_sqlpool_largest_lag_set(int seconds) {
  the_sql_pool().largest_lag = seconds;
}

int fr_sqlpool_shard_add(fr_sql_shard_t *shard) {
  return no_throw(-1, [shard] { return add_shard(std::shared_ptr<fr_sql_shard>(shard)); });
}

fr_sql_conn_t *fr_sqlpool_conn_get(int shard) {
  return no_throw<fr_sql_conn_t *>(nullptr, [shard]() -> fr_sql_conn_t * {
    auto session = std::make_unique<fr_sql_conn>();
    {
      sql_pool &pool = the_sql_pool();
      const std::lock_guard guard(pool.lock);
      if (shard < 0 || static_cast<size_t>(shard) >= pool.shards.size()) return nullptr;
      session->shard = pool.shards[static_cast<size_t>(shard)];
    }
    // For reading: most sessions only read, and one that writes moves to the master by itself.
    session->connection = take_connection(*session->shard, sql_purpose::read);
    return session->connection.server == nullptr ? nullptr : session.release();
  });
}

void fr_sqlpool_conn_free(fr_sql_conn_t *session) {
  if (session == nullptr) return;
  const std::unique_ptr<fr_sql_conn> owned(session);
  return_connection(*session->shard, std::move(session->connection));
}

int fr_sqlpool_destroy(void) {
  return no_throw(-1, [] {
    // Sessions that are out share their shard and keep it alive; `retired` makes them close.
    std::vector<std::shared_ptr<fr_sql_shard>> shards;
    {
      sql_pool &pool = the_sql_pool();
      const std::lock_guard guard(pool.lock);
      shards.swap(pool.shards);
    }
    for (const auto &shard : shards) {
      const std::lock_guard guard(shard->lock);
      shard->retired = true;
      // Before they are closed: a child must not say goodbye on its parent's connections.
      keep_to_own_connections(*shard);
      for (sql_server &server : shard->servers) server.idle.clear();
    }
    return 0;
  });
}

int fr_sql_conn_query(fr_sql_conn_t *session, int store, MYSQL_RES **result, const char *format,
                      ...) {
  va_list arguments;
  va_start(arguments, format);
  const int status = fr_sql_conn_vquery(session, store, result, format, arguments);
  va_end(arguments);
  return status;
}

int fr_sql_conn_vquery(fr_sql_conn_t *session, int store, MYSQL_RES **result, const char *format,
                       va_list arguments) {
  if (result == nullptr) return -1;
  *result = nullptr;
  if (session == nullptr || format == nullptr) return -1;
  if (store == 0) return fail(*session, CR_UNKNOWN_ERROR, "Results are read whole or not at all");
  constexpr int thrown = -2;
  const int status =
      no_throw(thrown, [=] { return run_statement(*session, result, format, arguments); });
  return status == thrown ? fail(*session, CR_OUT_OF_MEMORY, out_of_memory) : status;
}

MYSQL *fr_sql_conn_get_mysql(fr_sql_conn_t *session) {
  return session == nullptr ? nullptr : handle_of(*session);
}
