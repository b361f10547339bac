// Cache replies: whatever a server answers, a command ends at once and hands out what the answer
// says or nothing, and the next command never gets what was left of this answer.
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <thread>

#include "fuzz/fuzz.h"
#include "platform/base/text_array.h"
#include "platform/velkan/velkan.h"

// Time stands still for the client: what it allows itself to wait for a cache in trouble is never
// used up, however many inputs there are.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  return time_point(std::chrono::hours(1));
}

namespace {

using texts = std::vector<std::string>;
using client_owner = std::unique_ptr<vk_client_t, call_to_release<vk_client_destroy>>;

// A server on a thread of its own. It gives each connection the answers of its script, one for
// every time it is asked, and then ends it.
class scripted_server {
 public:
  // Read when a client connects: changed only while there is none.
  texts script;

  scripted_server() {
    const std::string path = "/tmp/fuzz-" + std::to_string(::getpid());
    sockaddr_un address = {AF_UNIX, ""};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto *name = reinterpret_cast<const sockaddr *>(&address);
    REQUIRE(::bind(listener_.get(), name, sizeof address) == 0 &&
            ::listen(listener_.get(), 9) == 0);
    // Its descriptor is enough to connect to: nothing stays in the file system.
    place_.reset(::open(path.c_str(), O_PATH | O_CLOEXEC));
    REQUIRE(::unlink(path.c_str()) == 0);
    std::thread([this] { serve(); }).detach();
  }
  std::string host() const { return "/proc/self/fd/" + std::to_string(place_.get()); }

 private:
  [[noreturn]] void serve() const {
    for (;;) {
      const unique_fd connection(::accept(listener_.get(), nullptr, nullptr));
      const texts answers = script;
      auto answer = answers.begin();
      char command[4096];
      while (::recv(connection.get(), command, sizeof command, 0) > 0) {
        if (answer == answers.end()) continue;
        ::send(connection.get(), answer->data(), answer->size(), MSG_NOSIGNAL);
        if (++answer == answers.end()) ::shutdown(connection.get(), SHUT_WR);
      }
    }
  }

  unique_fd listener_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  unique_fd place_;
};

// A client of its own for each script: what the one before did wrong holds up nothing. The server
// has time for one at a time.
client_owner connect(scripted_server &server, texts script) {
  server.script = std::move(script);
  vk_mm_t *memory = vk_mm_create(malloc, calloc, realloc, free);
  client_owner client(vk_client_create(1, 2, memory, nullptr));
  vk_mm_destroy(memory);
  REQUIRE(vk_server_add(client.get(), server.host().c_str(), 0, "s") == VK_OK);
  return client;
}

struct result {
  int status = VK_OK;
  texts pairs = {};  // field, value, field and so on

  bool operator==(const result &) const = default;
};

// Reads all pairs of a hash but the first.
result ask(const client_owner &client) {
  result got;
  size_t count = 0;
  char **fields = nullptr;
  char **values = nullptr;
  got.status = vk_hgetall(client.get(), "k", 1, &count, &fields, &values, 1, 0);
  REQUIRE(got.status == VK_OK || (fields == nullptr && values == nullptr && count == 0));
  const text_array owned_fields(fields, count);
  const text_array owned_values(values, count);
  for (size_t i = 0; i < count; ++i) {
    for (const char *text : {fields[i], values[i]}) {
      got.pairs.emplace_back(text == nullptr ? "" : text);
    }
  }
  return got;
}

std::string bulk(const std::string &text) {
  return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

// An answer of two pairs.
std::string answer_of(const std::string &field, const std::string &value) {
  return "*4\r\n" + bulk("passed") + bulk("over") + bulk(field) + bulk(value);
}

}  // namespace

void check(std::string_view bytes) {
  static auto &server = *new scripted_server;
  static const std::string greeting = "*1\r\n" + bulk("master") + "+OK\r\n";
  static const std::string answer = answer_of("name", "value");
  const result answered{VK_OK, {"name", "value"}};
  const std::string text(bytes);

  // As an answer, after which the server hangs up.
  const result got = ask(connect(server, {greeting, text}));
  for (const std::string &handed_out : got.pairs) REQUIRE(bytes.find(handed_out) != bytes.npos);
  // As the greeting: only who says to be a master is asked for more.
  const int status = ask(connect(server, {text})).status;
  const bool may_be_master = bytes.starts_with('*') && bytes.find("master") != bytes.npos;
  REQUIRE(status == VK_ERR_DOWN || (status == VK_ERR_IO && may_be_master));
  // As what an answer holds, and as what follows it.
  for (const std::string &behind : {std::string(), text}) {
    const client_owner client = connect(server, {greeting, answer_of("", text) + behind, answer});
    REQUIRE(ask(client) == (result{VK_OK, {"", text.c_str()}}));
    REQUIRE(ask(client) == (behind.empty() ? answered : result{VK_ERR_IO}));
  }
}
