// Real MariaDB and Redis servers for tests, each a child of its own in a private folder.
//
// A server that does not come up throws std::runtime_error with its log. Destroying one kills it
// and removes its folder; it also dies when the process that started it dies.
#ifndef TESTS_SUPPORT_SERVERS_H
#define TESTS_SUPPORT_SERVERS_H

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace support {

// The account that every MariaDB of the tests knows, with all rights; any host may use it.
inline constexpr const char *database_user = "spoolcap";
inline constexpr const char *database_password = "secret";

// A folder of one's own that is removed with all that is in it.
class private_folder {
 public:
  explicit private_folder(const std::string &prefix);
  private_folder(const private_folder &) = delete;
  private_folder &operator=(const private_folder &) = delete;
  ~private_folder();
  const std::filesystem::path &path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// A TCP socket on a free port of 127.0.0.1, which it tells; it does not listen yet.
unique_fd bound_to_loopback(int &port);

struct server_options {
  bool tcp = false;                         // also listen on a free port of 127.0.0.1
  std::string password = {};                // requirepass of a Redis
  std::vector<std::string> arguments = {};  // behind the usual ones
};

// A server: how it is started, and a real ping. The socket is in its folder.
class server {
 public:
  server(const server &) = delete;
  server &operator=(const server &) = delete;
  ~server() { kill_hard(); }

  const std::filesystem::path &folder() const { return folder_.path(); }
  std::string socket() const { return (folder() / "socket").string(); }
  int port() const { return port_; }  // on 127.0.0.1; 0 without TCP
  pid_t pid() const { return child_ ? child_->pid() : -1; }
  const std::string &password() const { return password_; }

  // Starts it again on the same data, socket and port, after stop() or kill_hard().
  void start();
  // TERM, ten seconds, KILL.
  void stop();
  // As a crash would end it: KILL.
  void kill_hard() { child_.reset(); }
  // A server that hangs: it accepts connections and answers nothing.
  void pause();
  void resume();

 protected:
  struct kind {
    const char *name;
    std::vector<std::string> (*argv)(const server &);
    bool (*answers)(const server &);
  };
  server(const kind &what, const server_options &options);

 private:
  kind kind_;
  private_folder folder_;
  std::string password_;
  std::vector<std::string> arguments_;
  int port_ = 0;
  std::unique_ptr<background_process> child_;
};

struct mariadb_server : server {
  explicit mariadb_server(const server_options &options = {});
  // Initialises a data directory that servers are copied from. Takes a few seconds.
  static void make_template(const std::filesystem::path &folder);
};

struct redis_server : server {
  explicit redis_server(const server_options &options = {});
};

// How many databases every Redis of the tests has.
inline constexpr int redis_databases = 20'000;

// The servers that the testbed started for all tests of a run.
struct shared_server_set {
  std::string mariadb_socket;
  std::string redis_socket;
};

// Throws without a testbed.
const shared_server_set &shared_servers();

// Names under which the testbed exports what it made.
inline constexpr const char *mariadb_variable = "SPOOLCAP_TEST_MARIADB";
inline constexpr const char *redis_variable = "SPOOLCAP_TEST_REDIS";
inline constexpr const char *template_variable = "SPOOLCAP_TEST_TEMPLATE";
inline constexpr const char *folder_variable = "SPOOLCAP_TEST_FOLDER";

}  // namespace support

#endif
