// Finds the master of a group, and bounds what a cache in trouble can cost.
// Every command of every thread passes here, one at a time for each client.
#include "platform/velkan/group.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>

#include "platform/base/process.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds connect_timeout{500};  // for all servers together
// After a failure.
constexpr milliseconds pause{5000};
constexpr milliseconds fail_over_pause{1000};  // when all that was found is a replica
constexpr milliseconds short_pause{500};       // of a patient client

// The client's own levels are bits of a mask; syslog's are numbers.
struct log_level {
  unsigned bit;
  int priority;
};

constexpr log_level as_error = {VK_LOG_ERROR, LOG_ERR};
constexpr log_level as_warning = {VK_LOG_WARNING, LOG_WARNING};
constexpr log_level as_notice = {VK_LOG_NOTICE, LOG_NOTICE};
constexpr log_level as_event = {VK_LOG_EVENT, LOG_INFO};
constexpr log_level as_debug = {VK_LOG_DEBUG, LOG_DEBUG};

__attribute__((format(printf, 3, 4))) void write_log(const vk_state &state, log_level level,
                                                     const char *format, ...) {
  if ((state.log_mask & level.bit) == 0) return;
  va_list arguments;
  va_start(arguments, format);
  ::vsyslog(LOG_USER | level.priority, format, arguments);
  va_end(arguments);
}

const char *describe(vk_io result) {
  switch (result) {
    case vk_io::broken:
      return "connection lost";
    case vk_io::timed_out:
      return "no answer in time";
    default:
      return "not the protocol of a cache server";
  }
}

// The answer to ROLE is a list whose first element is the role's name.
bool is_master(const redisReply &role) {
  if (role.type != REDIS_REPLY_ARRAY || role.elements == 0) return false;
  const redisReply &kind = *role.element[0];
  return kind.type == REDIS_REPLY_STRING && std::string_view(kind.str, kind.len) == "master";
}

std::string command_text(std::initializer_list<std::string_view> words) {
  std::vector<const char *> arguments;
  std::vector<size_t> lengths;
  for (const std::string_view word : words) {
    arguments.push_back(word.data());
    lengths.push_back(word.size());
  }
  const vk_command command(static_cast<int>(words.size()), arguments.data(), lengths.data());
  if (command.empty()) throw std::bad_alloc();
  return std::string(command.bytes());
}

// Looks the server's addresses up when they are not known or did not serve.
void find_addresses(vk_server &server) {
  if (!server.look_up) return;
  auto addresses = addresses_of(server.host, server.port);
  // A resolver that fails leaves the old addresses, which may still serve.
  if (!addresses.empty()) server.addresses = std::move(addresses);
  // Set again when connecting fails, so a host that moved is found the next time.
  server.look_up = false;
}

constexpr std::string_view not_a_master = "not a master";

// Logs in, asks for the role and takes the database, all in one exchange. Empty when the server
// is ready for commands, else why it is not.
std::string shake_hands(const vk_state &state, vk_connection &connection,
                        vk_clock::time_point deadline) {
  const auto key = state.keys.find(state.database);
  const bool has_key = key != state.keys.end();
  std::string greeting = has_key ? command_text({"AUTH", key->second}) : std::string();
  greeting += command_text({"ROLE"});
  greeting += command_text({"SELECT", std::to_string(state.database)});
  bool waited = false;
  const vk_io sent = connection.send_all(greeting, deadline, waited);
  if (sent != vk_io::ok) return describe(sent);
  // One exchange costs one turn instead of three; the replies come in the order of the commands.
  const int replies = has_key ? 3 : 2;
  for (int number = 0; number < replies; number++) {
    vk_reply reply;
    const vk_io received = connection.receive(deadline, false, reply);
    if (received != vk_io::ok) return describe(received);
    if (reply->type == REDIS_REPLY_ERROR) return "refused: " + std::string(reply->str, reply->len);
    // The last but one is the answer to ROLE. A replica would take no writes.
    if (number == replies - 2 && !is_master(*reply)) return std::string(not_a_master);
  }
  return {};
}

enum class search {
  found,
  replica,  // one that answers: it may be the master soon
  nobody
};

// Finds the master. Each server gets an even share of the time left, so that one that hangs cannot
// hide the one after it.
search connect_to_master(vk_state &state, vk_clock::time_point deadline) {
  search result = search::nobody;
  size_t left = state.servers.size();
  for (vk_server &server : state.servers) {
    find_addresses(server);
    const auto share = share_of(deadline, left--);
    auto connection = vk_connection::open(server.addresses, share);
    const std::string fault =
        connection ? shake_hands(state, *connection, share) : std::strerror(errno);
    if (fault.empty()) {
      write_log(state, as_event, "velkan: using server %s (%s)", server.name.c_str(),
                server.host.c_str());
      state.connection = std::move(connection);
      state.connected_by = process_generation();
      return search::found;
    }
    if (fault == not_a_master) result = search::replica;
    server.look_up = true;
    write_log(state, as_warning, "velkan: server %s (%s) is passed over: %s", server.name.c_str(),
              server.host.c_str(), fault.c_str());
  }
  return result;
}

// The connection goes too: a late answer on it would belong to a command that has ended.
int give_up(vk_state &state, int code, milliseconds length = pause) {
  state.connection.reset();
  if (state.is_patient) length = short_pause;
  state.paused_until = vk_clock::now() + length;
  write_log(state, as_error, "velkan: %s; not asking for %g s", vk_strerror(code),
            static_cast<double>(length.count()) / 1000);
  return code;
}

// Charges the budget with the time of its own life, unless the client is patient.
class charged_time {
 public:
  charged_time(const vk_state &state, vk_clock::time_point start)
      : is_free_(state.is_patient), start_(start) {}
  charged_time(const charged_time &) = delete;
  charged_time &operator=(const charged_time &) = delete;
  ~charged_time() {
    if (!is_free_) the_vk_budget.charge(start_, vk_clock::now());
  }

 private:
  bool is_free_;
  vk_clock::time_point start_;
};

// What a master answers to a write after a fail-over made it a replica.
bool is_read_only(const redisReply &reply) {
  return reply.type == REDIS_REPLY_ERROR &&
         std::string_view(reply.str, reply.len).starts_with("READONLY");
}

}  // namespace

int run_command(vk_state &state, const vk_command &command, vk_reply &reply) {
  if (command.empty()) return VK_ERR_MEMORY;
  // Held to the end: commands of one client take turns on its one connection.
  const std::lock_guard guard(state.lock);
  if (state.servers.empty()) return VK_ERR_CLIENT;
  // A child of fork leaves the connection to its parent: two that share one read each other's
  // replies.
  if (state.connection && state.connected_by != process_generation()) state.connection.reset();
  const auto start = vk_clock::now();
  const vk_clock::duration budget =
      state.is_patient ? vk_connection::command_timeout : the_vk_budget.left(start);
  if (start < state.paused_until || budget == budget.zero()) return VK_ERR_DOWN;
  const charged_time charge(state, start);
  const bool may_be_patient = budget >= vk_connection::command_timeout;
  const auto deadline =
      start + std::min<vk_clock::duration>(budget, vk_connection::command_timeout);

  int failure = VK_ERR_IO;
  // A kept connection may have been closed while it idled; a second try on a new one decides.
  for (int attempt = 0; attempt < 2; attempt++) {
    const bool is_fresh = !state.connection;
    if (is_fresh) {
      const search met =
          connect_to_master(state, std::min(deadline, vk_clock::now() + connect_timeout));
      if (met == search::replica) return give_up(state, VK_ERR_DOWN, fail_over_pause);
      if (met == search::nobody) return give_up(state, VK_ERR_DOWN);
    }
    const vk_io result =
        state.connection->ask(command.bytes(), deadline, !is_fresh && may_be_patient, reply);
    // No second try here: it would wait as long again.
    if (result == vk_io::timed_out || result == vk_io::garbage) return give_up(state, VK_ERR_IO);
    if (result == vk_io::ok && !is_read_only(*reply)) {
      if (reply->type == REDIS_REPLY_ERROR) {
        write_log(state, as_debug, "velkan: error reply: %s", reply->str);
        return VK_ERR_REPLY;
      }
      return VK_OK;
    }
    // The server ended the connection, as at a restart, or is no master any more: both are known
    // at once, so that the command may be given again without waiting twice.
    failure = result == vk_io::ok ? VK_ERR_REPLY : VK_ERR_IO;
    write_log(state, as_notice, "velkan: %s",
              result == vk_io::ok ? "server turned read-only" : describe(result));
    state.connection.reset();
  }
  return give_up(state, failure);
}
