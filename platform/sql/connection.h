// One connection to one server: opening it within its time, and telling whether it still serves.
// Internal to platform/sql.
#ifndef PLATFORM_SQL_CONNECTION_H
#define PLATFORM_SQL_CONNECTION_H

#include <chrono>
#include <string>
#include <string_view>

#include "platform/sql/handles.h"

using sql_clock = std::chrono::steady_clock;

// Of all servers of a shard. The password is never logged.
struct sql_credentials {
  std::string user;
  std::string password;
  std::string database;
};

// A server as its line names it: host and port, or the path of a Unix socket.
struct sql_address {
  std::string host;  // a path when it begins with "/"
  unsigned port = 0;

  bool is_socket() const { return host.starts_with('/'); }
  std::string text() const { return is_socket() ? host : host + ":" + std::to_string(port); }
};

// Connects, within 3 s after what the resolver takes for a name. `handle` is given a new connection
// object in any case, so that it can tell the reason of a failure; it is null only when memory is
// short.
bool open_connection(mysql_handle &handle, const sql_credentials &credentials,
                     const sql_address &address);

// Whether the server closed an idle connection, or spoke unasked, which it does only to say that
// it is about to. Costs one system call and asks the server nothing.
bool is_closed_by_server(MYSQL *mysql);

// Asks the server for a sign of life, within the time that connecting may take.
bool answers_ping(MYSQL *mysql);

// Runs a statement whose answer is short, within the time that connecting may take. False on a
// failure, which mysql_error describes.
bool ask_in_time(MYSQL *mysql, std::string_view statement, sql_result &result);

// Lets go of a connection that another process goes on using, without a word to the server.
void abandon(mysql_handle handle);

// Whether the connection's last error leaves it unusable.
bool is_lost(MYSQL *mysql);

// Makes mysql_error tell of a failure that the client library had no part in, or another
// connection.
void set_error(MYSQL *mysql, unsigned code, const char *text) noexcept;

#endif
