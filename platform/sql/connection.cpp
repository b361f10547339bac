// One connection to one database server, held to its time limits.
// Knows neither pool nor shards; keeps nothing.
#include "platform/sql/connection.h"

#include <errmsg.h>
#include <fcntl.h>
#include <mysqld_error.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "platform/base/deadline.h"

namespace {

constexpr unsigned connect_timeout = 3;      // seconds
constexpr unsigned statement_timeout = 600;  // seconds without any byte from the server

void set_options(MYSQL *mysql, const sql_address &address) {
  const unsigned protocol = address.is_socket() ? MYSQL_PROTOCOL_SOCKET : MYSQL_PROTOCOL_TCP;
  const unsigned off = 0;
  mysql_options(mysql, MYSQL_OPT_CONNECT_TIMEOUT, &connect_timeout);
  mysql_options(mysql, MYSQL_OPT_READ_TIMEOUT, &statement_timeout);
  mysql_options(mysql, MYSQL_OPT_WRITE_TIMEOUT, &statement_timeout);
  mysql_options(mysql, MYSQL_OPT_PROTOCOL, &protocol);
  // A server could otherwise ask this process for any file that it may read.
  mysql_options(mysql, MYSQL_OPT_LOCAL_INFILE, &off);
  mysql_options(mysql, MYSQL_SET_CHARSET_NAME, "utf8mb4");
}

// The result, for the client library, of the wait that it asked for. After the deadline there is
// none: a server that always has more to say must not prolong it.
int wait_for(MYSQL *mysql, int events, const deadline &end) {
  short wanted = 0;
  if ((events & MYSQL_WAIT_READ) != 0) wanted |= POLLIN;
  if ((events & MYSQL_WAIT_WRITE) != 0) wanted |= POLLOUT;
  const auto socket = static_cast<int>(mysql_get_socket(mysql));
  if (end.passed() || !wait_ready(socket, wanted, &end)) return MYSQL_WAIT_TIMEOUT;
  return events & (MYSQL_WAIT_READ | MYSQL_WAIT_WRITE);
}

// The client library takes a connect to a Unix socket whose queue is full for one under way, which
// it is not: it was refused, and is tried here until there is room.
void wait_for_room(int socket, const std::string &path, const deadline &end) {
  sockaddr_un server = {};
  server.sun_family = AF_UNIX;
  path.copy(server.sun_path, sizeof server.sun_path - 1);
  const auto *address = reinterpret_cast<const sockaddr *>(&server);
  while (::connect(socket, address, sizeof server) != 0 && errno == EAGAIN && !end.passed()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Connects by a deadline for all of it: the library's own timeout starts anew with each byte that
// comes.
bool connect_in_time(MYSQL *mysql, const sql_credentials &credentials, const sql_address &address) {
  if (mysql_options(mysql, MYSQL_OPT_NONBLOCK, nullptr) != 0) return false;
  const deadline end(connect_timeout);
  const bool local = address.is_socket();
  MYSQL *connected = nullptr;
  // CLIENT_MULTI_RESULTS lets stored procedures answer; several statements in one stay forbidden.
  int events = mysql_real_connect_start(
      &connected, mysql, local ? nullptr : address.host.c_str(), credentials.user.c_str(),
      credentials.password.c_str(), credentials.database.c_str(), address.port,
      local ? address.host.c_str() : nullptr, CLIENT_MULTI_RESULTS);
  if (local && events != 0) {
    wait_for_room(static_cast<int>(mysql_get_socket(mysql)), address.host, end);
  }
  while (events != 0) {
    events = mysql_real_connect_cont(&connected, mysql, wait_for(mysql, events, end));
  }
  return connected != nullptr;
}

}  // namespace

bool open_connection(mysql_handle &handle, const sql_credentials &credentials,
                     const sql_address &address) {
  handle.reset(mysql_init(nullptr));
  if (!handle) return false;
  set_options(handle.get(), address);
  if (!connect_in_time(handle.get(), credentials, address)) return false;
  // The client library offers no way to open the socket close-on-exec.
  ::fcntl(static_cast<int>(mysql_get_socket(handle.get())), F_SETFD, FD_CLOEXEC);
  return true;
}

// An idle server says nothing, so any input on the socket means the end.
bool is_closed_by_server(MYSQL *mysql) {
  pollfd socket = {static_cast<int>(mysql_get_socket(mysql)), POLLIN, 0};
  return ::poll(&socket, 1, 0) != 0;
}

void abandon(mysql_handle handle) {
  // Closing it says goodbye to the server; that goes nowhere, instead of ending it for its owner.
  const unique_fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  const auto socket = static_cast<int>(mysql_get_socket(handle.get()));
  if (nowhere && ::dup2(nowhere.get(), socket) == socket) return;
  // Then rather a leak in the child than trouble in the parent.
  [[maybe_unused]] MYSQL *const leaked = handle.release();
}

bool answers_ping(MYSQL *mysql) {
  // A plain ping would wait as long as a statement may; this form can be cut off.
  const deadline end(connect_timeout);
  int failed = 1;
  int events = mysql_ping_start(&failed, mysql);
  while (events != 0) {
    events = mysql_ping_cont(&failed, mysql, wait_for(mysql, events, end));
  }
  return failed == 0;
}

bool ask_in_time(MYSQL *mysql, std::string_view statement, sql_result &result) {
  const deadline end(connect_timeout);
  int failed = 1;
  int events = mysql_real_query_start(&failed, mysql, statement.data(), statement.size());
  while (events != 0) {
    events = mysql_real_query_cont(&failed, mysql, wait_for(mysql, events, end));
  }
  if (failed != 0) return false;
  MYSQL_RES *rows = nullptr;
  events = mysql_store_result_start(&rows, mysql);
  while (events != 0) {
    events = mysql_store_result_cont(&rows, mysql, wait_for(mysql, events, end));
  }
  result.reset(rows);
  return mysql_errno(mysql) == 0;
}

bool is_lost(MYSQL *mysql) {
  // Errors of the client itself leave the conversation at an unknown place, whatever their cause.
  const unsigned code = mysql_errno(mysql);
  if (code >= CR_MIN_ERROR && code <= CR_MAX_ERROR) return true;
  if (code >= CR_EVENT_CREATE_FAILED && code <= CR_MARIADB_LAST_ERROR) return true;
  switch (code) {
    case ER_CONNECTION_KILLED:
    case ER_SERVER_SHUTDOWN:
    case ER_NORMAL_SHUTDOWN:
    case ER_FORCING_CLOSE:
    case ER_ABORTING_CONNECTION:
    case ER_NEW_ABORTING_CONNECTION:
      return true;
    default:
      return false;
  }
}

void set_error(MYSQL *mysql, unsigned code, const char *text) noexcept {
  mysql->net.last_errno = code;
  std::snprintf(mysql->net.last_error, sizeof mysql->net.last_error, "%s", text);
  // HY000 is the general error of SQL; callers look at the number and the text.
  std::snprintf(mysql->net.sqlstate, sizeof mysql->net.sqlstate, "%s", "HY000");
}
