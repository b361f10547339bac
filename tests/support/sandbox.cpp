#include "tests/support/sandbox.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "tests/support/paths_sandbox.h"

namespace support {
namespace {

constexpr const char *quota_root = "var/lib/quorvexquota";

std::string text_of(const std::filesystem::path &file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot read " + file.string());
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

sandbox::sandbox(const sandbox_options &options) : folder_("box") {
  if (options.use_database) make_database(options);
  if (options.use_cache) make_cache_database(options);
  write_configuration(options);
  set_paths_root(root().string());
}

sandbox::~sandbox() {
  // A server that a test broke for good takes its content along.
  try {
    if (sql_) sql("DROP DATABASE " + database_);
    if (user_ != database_user) sql("DROP USER " + user_ + "@localhost");
    if (redis_) redis({"FLUSHDB"});
  } catch (const std::exception &) {
  }
}

void sandbox::make_database(const sandbox_options &options) {
  mariadb_socket_ =
      options.database != nullptr ? options.database->socket() : shared_servers().mariadb_socket;
  database_ = root().filename().string();
  std::replace(database_.begin(), database_.end(), '-', '_');

  sql_.reset(mysql_init(nullptr));
  // A sandbox on a server that hangs or is gone has to come to its end.
  const unsigned seconds = 20;
  mysql_options(sql_.get(), MYSQL_OPT_CONNECT_TIMEOUT, &seconds);
  mysql_options(sql_.get(), MYSQL_OPT_READ_TIMEOUT, &seconds);
  mysql_options(sql_.get(), MYSQL_SET_CHARSET_NAME, "utf8mb4");
  if (mysql_real_connect(sql_.get(), nullptr, database_user, database_password, nullptr, 0,
                         mariadb_socket_.c_str(), CLIENT_MULTI_STATEMENTS) == nullptr) {
    throw std::runtime_error(std::string("sandbox: ") + mysql_error(sql_.get()));
  }
  sql("CREATE DATABASE " + database_ + " DEFAULT CHARACTER SET utf8mb4");
  sql("USE " + database_);
  sql(text_of(SPOOLCAP_SUPPORT_SOURCE "/schema.sql"));
  if (!options.guides.empty()) make_user(options.guides);
}

// The statements as an administrator copies them, but for the names of the user and the database.
void sandbox::make_user(const std::vector<std::string> &guides) {
  user_ = database_;
  const std::regex user("'spoolcap'@'localhost'"), database(" demo\\.");
  for (const std::string &guide : guides) {
    std::istringstream lines(text_of(SPOOLCAP_SUPPORT_SOURCE "/../../docs/" + guide));
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("    CREATE USER ") && !line.starts_with("    GRANT ")) continue;
      line = std::regex_replace(line, user, "'" + user_ + "'@'localhost'");
      sql(std::regex_replace(line, database, " " + database_ + "."));
    }
  }
}

void sandbox::make_cache_database(const sandbox_options &options) {
  redis_socket_ =
      options.cache != nullptr ? options.cache->socket() : shared_servers().redis_socket;
  if (options.cache != nullptr) redis_password_ = options.cache->password();

  redis_.reset(redisConnectUnixWithTimeout(redis_socket_.c_str(), timeval{20, 0}));
  if (!redis_ || redis_->err != 0) throw std::runtime_error("sandbox: no cache");
  redisSetTimeout(redis_.get(), timeval{20, 0});
  if (!redis_password_.empty()) redis({"AUTH", redis_password_});
  // Database 0 holds the counter that gives every sandbox of the server a number of its own.
  const int ticket = std::stoi(redis({"INCR", "sandboxes"}).value());
  cache_database_ = 1 + (ticket - 1) % (redis_databases - 1);
  redis({"SELECT", std::to_string(cache_database_)});
  redis({"FLUSHDB"});
}

void sandbox::write_configuration(const sandbox_options &options) {
  std::map<std::string, std::string> files = {
      {"etc/quorvex/paths.conf", "QUORVEX_QUOTA_D " + path(quota_root) + "\nASTERISK_CONF_FILE " +
                                     path("etc/asterisk/asterisk.conf") + "\n"},
      {"etc/quorvex/pbx.conf", ""},
      {"etc/quorvex/sqldbase.conf", ""},
      {"etc/quorvex/disdbase.conf", ""},
      {"etc/quorvex/local.conf", ""},
      {"etc/quorvexnode/nodeid", "1\n"},
      {"etc/asterisk/asterisk.conf", "[directories]\nastspooldir => " + path("var/spool/asterisk") +
                                         "\nastlibdir => " + path("var/lib/asterisk") +
                                         "\nastvarlibdir => " + path("var/lib/asterisk") + "\n"}};
  if (options.use_database) {
    files["etc/quorvex/pbx.conf"] +=
        "DB_CREDENTIALS main:" + user_ + ":" + database_password + ":" + database_ + "\n";
    files["etc/quorvex/sqldbase.conf"] += "DB_MASTER main:" + mariadb_socket_ + ":3306\n";
  }
  if (options.use_cache) {
    files["etc/quorvex/pbx.conf"] += "DISDBASE_CREDENTIALS main:spoolcap:" + redis_password_ + ":" +
                                     std::to_string(cache_database_) + "\n";
    files["etc/quorvex/disdbase.conf"] +=
        "DISDBASE_HOST main:cache:one:" + redis_socket_ + ":6379\n";
  }
  for (const auto &[name, text] : files) write_file(name, text);
  std::filesystem::permissions(path("etc/quorvex/pbx.conf"), std::filesystem::perms(0640));
}

std::string sandbox::path(std::string_view relative) const {
  return (root() / relative).string();
}

void sandbox::make_folder(std::string_view relative) {
  std::filesystem::create_directories(root() / relative);
}

void sandbox::write_file(std::string_view relative, std::string_view text) {
  const std::filesystem::path file = root() / relative;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream << text;
  if (!stream.flush()) throw std::runtime_error("cannot write " + file.string());
}

void sandbox::write_file(std::string_view relative, int size) {
  write_file(relative, std::string(static_cast<std::size_t>(size), 'x'));
}

std::optional<std::string> sandbox::read_file(std::string_view relative) const {
  if (!std::filesystem::exists(root() / relative)) return std::nullopt;
  return text_of(root() / relative);
}

std::string sandbox::quota_path(const std::string &place_and_kind) const {
  return (root() / quota_root / (place_and_kind + ".quota")).string();
}

std::string sandbox::sound_folder(std::string_view id) {
  return std::string("var/lib/asterisk/sounds/.").append(id);
}

std::string sandbox::music_folder(std::string_view id) {
  return std::string("var/lib/asterisk/music/").append(id);
}

std::vector<sql_row> sandbox::sql(const std::string &statement) const {
  if (!sql_) throw std::logic_error("this sandbox has no database");
  std::vector<sql_row> rows;
  int status = mysql_real_query(sql_.get(), statement.data(), statement.size());
  while (status == 0) {
    const sql_result result(mysql_store_result(sql_.get()));
    for (MYSQL_ROW row; result && (row = mysql_fetch_row(result.get())) != nullptr;) {
      const unsigned long *lengths = mysql_fetch_lengths(result.get());
      sql_row &fields = rows.emplace_back();
      for (unsigned i = 0; i < mysql_num_fields(result.get()); ++i) {
        fields.emplace_back();
        if (row[i] != nullptr) fields.back().emplace(row[i], lengths[i]);
      }
    }
    status = mysql_next_result(sql_.get());
  }
  if (status > 0) {
    throw std::runtime_error(std::string(mysql_error(sql_.get())) + " in: " + statement);
  }
  return rows;
}

std::optional<std::string> sandbox::sql_value(const std::string &statement) const {
  const std::vector<sql_row> rows = sql(statement);
  return rows.empty() ? std::nullopt : rows[0].at(0);
}

std::optional<std::string> sandbox::redis(const std::vector<std::string> &command) const {
  if (!redis_) throw std::logic_error("this sandbox has no cache");
  std::vector<const char *> words;
  std::vector<size_t> lengths;
  for (const std::string &word : command) {
    words.push_back(word.data());
    lengths.push_back(word.size());
  }
  const vk_reply reply = own_reply(
      redisCommandArgv(redis_.get(), static_cast<int>(words.size()), words.data(), lengths.data()));
  if (!reply) throw std::runtime_error(command.at(0) + ": " + redis_->errstr);
  if (reply->type == REDIS_REPLY_ERROR) throw std::runtime_error(command[0] + ": " + reply->str);
  if (reply->type == REDIS_REPLY_NIL) return std::nullopt;
  if (reply->type == REDIS_REPLY_INTEGER) return std::to_string(reply->integer);
  return std::string(reply->str, reply->len);
}

std::string sandbox::quoted(std::string_view text) const {
  if (!sql_) throw std::logic_error("this sandbox has no database");
  std::string escaped(2 * text.size() + 1, '\0');
  escaped.resize(mysql_real_escape_string(sql_.get(), escaped.data(), text.data(), text.size()));
  return "'" + escaped + "'";
}

void sandbox::add_account(int id, std::optional<int> parent, int level, std::string_view login) {
  const std::string account = std::to_string(id);
  sql("INSERT INTO client (id, parent_client_id, level, name, status, phonestatus) VALUES (" +
      account + ", " + (parent ? std::to_string(*parent) : "NULL") + ", " + std::to_string(level) +
      ", " + quoted(std::string("Name of ").append(login)) + ", 1, 1)");
  sql("INSERT INTO hs_account (userID, username) VALUES (" + account + ", " + quoted(login) + ")");
}

void sandbox::set_preference(int account, std::string_view name, std::string_view value) {
  sql("REPLACE INTO client_prefs (client_id, param, value) VALUES (" + std::to_string(account) +
      ", " + quoted(name) + ", " + quoted(value) + ")");
}

void sandbox::add_extension(int id, int owner, std::string_view number) {
  sql("INSERT INTO extension (id, client_id, number, extended_number, type) SELECT " +
      std::to_string(id) + ", id, " + quoted(number) + ", CONCAT(LPAD(parent_client_id, " +
      "GREATEST(4, LENGTH(parent_client_id)), '0'), '*', " + quoted(number) +
      "), 'term' FROM client WHERE id = " + std::to_string(owner));
}

void sandbox::add_stored_file(const std::string &table, int extension, std::int64_t size) {
  sql("INSERT INTO extension_" + table + " (extension_id, filesize) VALUES (" +
      std::to_string(extension) + ", " + std::to_string(size) + ")");
}

std::unique_ptr<background_process> sandbox::start(
    const char *program, const std::vector<std::string> &arguments) const {
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return std::make_unique<background_process>(
      argv, process_options{.environment = {{paths_root_variable, root().string()}}});
}

std::unique_ptr<background_process> sandbox::start_spoolcap(
    const std::vector<std::string> &arguments) const {
  return start(SPOOLCAP_SANDBOX_BINARY, arguments);
}

process_result sandbox::run_spoolcap(const std::vector<std::string> &arguments) const {
  return start_spoolcap(arguments)->wait(std::chrono::seconds(60)).value();
}

process_result sandbox::run_report(const std::vector<std::string> &arguments) const {
  return start(SPOOLCAP_REPORT_BINARY, arguments)->wait(std::chrono::seconds(60)).value();
}

}  // namespace support
