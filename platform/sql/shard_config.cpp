// Shards and servers from the lines of the platform's files.
// Reads files into the pool; opens no connection.
#include <cstring>
#include <optional>
#include <string_view>

#include "platform/base/line_reader.h"
#include "platform/base/view.h"
#include "platform/sql/pool.h"
#include "platform/sql/sqlpool.h"

namespace {

// Cuts the text up to the next colon off its front; nothing when there is no colon.
std::optional<std::string_view> take_field(std::string_view &text) {
  const size_t colon = text.find(':');
  if (colon == text.npos) return std::nullopt;
  const std::string_view field = text.substr(0, colon);
  text.remove_prefix(colon + 1);
  return field;
}

// The same from the end, for hosts and passwords that hold colons of their own.
std::optional<std::string_view> take_last_field(std::string_view &text) {
  const size_t colon = text.rfind(':');
  if (colon == text.npos) return std::nullopt;
  const std::string_view field = text.substr(colon + 1);
  text.remove_suffix(text.size() - colon);
  return field;
}

struct server_line {
  std::string id;
  sql_address address;
};

// The id comes first and the port last; all between them is the host, colons included.
std::optional<server_line> parse_server(std::string_view value) {
  const auto id = take_field(value);
  const auto port = take_last_field(value);
  if (!id || id->empty() || !port || value.empty()) return std::nullopt;
  server_line line = {std::string(*id), {std::string(value), 0}};
  if (line.address.is_socket()) return line;
  line.address.port = static_cast<unsigned>(std::strtoul(std::string(*port).c_str(), nullptr, 10));
  if (line.address.port == 0 || line.address.port > 65535) return std::nullopt;
  return line;
}

// The value behind the keyword when the line is one of its; a blank must stand between them.
std::optional<std::string_view> value_of(std::string_view line, std::string_view keyword) {
  if (!line.starts_with(keyword)) return std::nullopt;
  line.remove_prefix(keyword.size());
  if (line.empty() || !is_space(line.front())) return std::nullopt;
  return trimmed(line);
}

// Gives the server to its shard; skips the line of a shard without credentials.
void add_server(const server_line &line, bool is_master) {
  sql_pool &pool = the_sql_pool();
  // Always the pool's lock before a shard's: no function takes them the other way round.
  const std::lock_guard pool_guard(pool.lock);
  for (const auto &shard : pool.shards) {
    if (shard->id != line.id) continue;
    const std::lock_guard shard_guard(shard->lock);
    shard->servers.push_back({.address = line.address, .is_master = is_master});
    return;
  }
  SQL_LOG(FR_LOG_WARNING, "No credentials for shard %s of SQL server %s.\n", line.id.c_str(),
          line.address.text().c_str());
}

// Takes one line of the servers file; whether it names a master.
bool take_line(std::string_view line, const char *path, int number) {
  // A "#" begins a comment anywhere in the line; no host or id may hold one.
  line = trimmed(line.substr(0, line.find('#')));
  const auto master = value_of(line, "DB_MASTER");
  const auto value = master ? master : value_of(line, "DB_SLAVE");
  if (!value) return false;
  const auto server = parse_server(*value);
  if (!server) {
    // A bad line does not spoil the file: the servers of the other lines still serve.
    SQL_LOG(FR_LOG_ERROR, "Invalid SQL server line [%d] in <%s>.\n", number, path);
    return false;
  }
  add_server(*server, master.has_value());
  return master.has_value();
}

std::unique_ptr<fr_sql_shard> parse_shard(std::string_view value) {
  std::string_view rest = trimmed(value);
  const auto id = take_field(rest);
  const auto user = take_field(rest);
  const auto database = take_last_field(rest);
  if (!id || id->empty() || !user || user->empty() || !database || database->empty()) {
    // Without the value, which holds a password.
    SQL_LOG(FR_LOG_ERROR, "Invalid SQL credentials: id:user:password:database is expected.\n");
    return nullptr;
  }
  auto shard = std::make_unique<fr_sql_shard>();
  shard->id = *id;
  shard->credentials = {std::string(*user), std::string(rest), std::string(*database)};
  return shard;
}

int read_servers(const char *path, bool need_master) {
  line_reader lines(path);
  if (!lines) {
    SQL_LOG(FR_LOG_ERROR, "Failed to open SQL servers file <%s>: %s\n", path, std::strerror(errno));
    return -1;
  }
  bool has_master = false;
  int number = 0;
  while (const auto line = lines.next()) {
    if (take_line(*line, path, ++number)) has_master = true;
  }
  if (lines.failed()) return -1;
  return has_master || !need_master ? 0 : -1;
}

}  // namespace

fr_sql_shard_t *fr_sql_shard_parse_info(const char *value) {
  return no_throw<fr_sql_shard_t *>(
      nullptr, [value] { return parse_shard(value == nullptr ? "" : value).release(); });
}

void fr_sql_shard_free(fr_sql_shard_t *shard) {
  delete shard;
}

int fr_sql_shard_parse_connection_info(const char *path, const void *reserved, int need_master) {
  if (path == nullptr || reserved != nullptr) return -1;
  return no_throw(-1, [=] { return read_servers(path, need_master != 0); });
}
