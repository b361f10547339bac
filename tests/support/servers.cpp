#include "tests/support/servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/sql/handles.h"
#include "platform/velkan/handles.h"

namespace support {
namespace {

using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

std::string variable(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? value : "";
}

// What the testbed exported under this name.
std::string from_testbed(const char *name) {
  std::string value = variable(name);
  if (value.empty()) throw std::runtime_error("run the tests under the testbed: make test");
  return value;
}

// Neither the tests' users nor a sanitizer's runtime are any business of a server.
const process_options for_servers{.environment = {{"LD_PRELOAD", std::nullopt}}, .limit = 120s};

// The words of a text, and others behind them.
std::vector<std::string> words(const std::string &text, const std::vector<std::string> &more) {
  std::istringstream stream(text);
  std::vector<std::string> all{std::istream_iterator<std::string>(stream), {}};
  all.insert(all.end(), more.begin(), more.end());
  if (geteuid() == 0 && all[0].starts_with("mariadb")) all.emplace_back("--user=root");
  return all;
}

}  // namespace

unique_fd bound_to_loopback(int &port) {
  unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  std::random_device draw;  // from below the ports that outgoing connections take
  for (int tries = 0; tries < 100; ++tries) {
    port = 20'000 + static_cast<int>(draw() % 12'000);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
  }
  throw std::runtime_error("no free port on 127.0.0.1");
}

private_folder::private_folder(const std::string &prefix) {
  std::filesystem::path parent = variable(folder_variable);
  if (parent.empty()) parent = std::filesystem::temp_directory_path();
  std::string name = (parent / (prefix + "-XXXXXX")).string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("cannot make a folder like " + name);
  }
  path_ = name;
}

private_folder::~private_folder() {
  std::error_code failure;
  std::filesystem::remove_all(path_, failure);
  // It holds one descriptor for each level that it is down; rm manages with few at any depth.
  if (failure) run_process({"rm", "-rf", "--", path_.string()});
}

server::server(const kind &what, const server_options &options)
    : kind_(what), folder_(what.name), password_(options.password), arguments_(options.arguments) {
  if (socket().size() >= sizeof sockaddr_un{}.sun_path) {
    throw std::runtime_error("too long for a socket, set TMPDIR to a shorter folder: " + socket());
  }
  if (options.tcp) bound_to_loopback(port_);
}

void server::start() {
  process_options options = for_servers;
  options.log = folder() / "log";
  std::vector<std::string> argv = kind_.argv(*this);
  argv.insert(argv.end(), arguments_.begin(), arguments_.end());
  child_ = std::make_unique<background_process>(argv, options);
  for (const auto deadline = clock_type::now() + 60s; !kind_.answers(*this);) {
    if (child_->running() && clock_type::now() < deadline) {
      std::this_thread::sleep_for(10ms);
      continue;
    }
    std::ifstream log(options.log);
    throw std::runtime_error(argv[0] + " does not come up:\n" +
                             std::string{std::istreambuf_iterator<char>(log), {}});
  }
}

void server::stop() {
  if (!child_) return;
  child_->kill(SIGCONT);
  child_->kill(SIGTERM);
  child_->wait(10s);
  kill_hard();
}

void server::pause() {
  if (!child_) return;
  child_->kill(SIGSTOP);
  siginfo_t ignored;  // its threads stop one by one, and one that still runs may answer once more
  waitid(P_PID, static_cast<id_t>(pid()), &ignored, WSTOPPED);
}

void server::resume() {
  if (child_) child_->kill(SIGCONT);
}

void mariadb_server::make_template(const std::filesystem::path &folder) {
  const std::filesystem::path users = folder.string() + ".sql";
  // Servers that share a folder for temporary tables take each other's away.
  const std::filesystem::path scratch = folder.string() + ".tmp";
  std::filesystem::create_directory(scratch);
  // The flush turns accounts on, which the server that runs this has switched off.
  std::ofstream(users) << "FLUSH PRIVILEGES;\nCREATE USER '" << database_user
                       << "'@'%' IDENTIFIED BY '" << database_password
                       << "';\nGRANT ALL ON *.* TO '" << database_user
                       << "'@'%' WITH GRANT OPTION;\n";
  const std::vector<std::string> argv = words(
      "mariadb-install-db --no-defaults --auth-root-authentication-method=normal --skip-test-db "
      "--skip-name-resolve --innodb-log-file-size=16M --innodb-flush-method=nosync "
      "--innodb-doublewrite=0",
      {"--datadir=" + folder.string(), "--tmpdir=" + scratch.string(),
       "--extra-file=" + users.string()});
  const process_result result = run_process(argv, for_servers);
  if (result.status != 0) {
    throw std::runtime_error("mariadb-install-db failed:\n" + result.out + result.err);
  }
  std::filesystem::remove(users);
  std::filesystem::remove_all(scratch);
}

static std::vector<std::string> mariadb_argv(const server &of) {
  const std::string here = of.folder().string();
  const std::string network = of.port() == 0
                                  ? "--skip-networking"
                                  : "--bind-address=127.0.0.1 --port=" + std::to_string(of.port());
  // Nothing in here has to survive the machine: no syncs, small buffers, a quick end.
  return words(
      "mariadbd --no-defaults --skip-name-resolve --character-set-server=utf8mb4 "
      "--collation-server=utf8mb4_general_ci --max-connections=500 --max-connect-errors=1000000 "
      "--max-allowed-packet=64M --innodb-flush-log-at-trx-commit=0 --innodb-flush-method=nosync "
      "--innodb-doublewrite=0 --innodb-log-file-size=16M --innodb-buffer-pool-size=64M "
      "--innodb-buffer-pool-dump-at-shutdown=0 --innodb-fast-shutdown=2 --key-buffer-size=1M "
      "--aria-pagecache-buffer-size=8M " +
          network,
      {"--datadir=" + here + "/data", "--tmpdir=" + here + "/tmp", "--socket=" + of.socket(),
       "--pid-file=" + here + "/pid"});
}

static bool mariadb_answers(const server &asked) {
  const mysql_handle connection(mysql_init(nullptr));
  const unsigned seconds = 5;
  mysql_options(connection.get(), MYSQL_OPT_CONNECT_TIMEOUT, &seconds);
  mysql_options(connection.get(), MYSQL_OPT_READ_TIMEOUT, &seconds);
  return mysql_real_connect(connection.get(), nullptr, database_user, database_password, nullptr, 0,
                            asked.socket().c_str(), 0) != nullptr &&
         mysql_ping(connection.get()) == 0;
}

mariadb_server::mariadb_server(const server_options &options)
    : server({"mariadb", mariadb_argv, mariadb_answers}, options) {
  std::filesystem::copy(from_testbed(template_variable), folder() / "data",
                        std::filesystem::copy_options::recursive);
  std::filesystem::create_directory(folder() / "tmp");
  start();
}

static std::vector<std::string> redis_argv(const server &of) {
  // A replica has not to wait for others.
  return words(
      "redis-server --bind 127.0.0.1 --unixsocketperm 700 --appendonly no --daemonize no "
      "--repl-diskless-sync-delay 0 --port " +
          std::to_string(of.port()) + " --databases " + std::to_string(redis_databases),
      {"--unixsocket", of.socket(), "--dir", of.folder().string(), "--save", "", "--requirepass",
       of.password()});
}

// One that asks for its password is up as well.
static bool redis_answers(const server &asked) {
  const vk_context context(redisConnectUnixWithTimeout(asked.socket().c_str(), timeval{5, 0}));
  if (!context || context->err != 0) return false;
  redisSetTimeout(context.get(), timeval{5, 0});
  return own_reply(redisCommand(context.get(), "PING")) != nullptr;
}

redis_server::redis_server(const server_options &options)
    : server({"redis", redis_argv, redis_answers}, options) {
  start();
}

const shared_server_set &shared_servers() {
  static const shared_server_set servers{from_testbed(mariadb_variable),
                                         from_testbed(redis_variable)};
  return servers;
}

}  // namespace support
