// Cache replies: whatever a server answers, a command ends at once and returns what the answer
// says, or nothing. The next command never gets what was left of this answer.
#include <chrono>

#include "fuzz/fuzz.h"
#include "platform/base/text_array.h"
#include "platform/velkan/velkan.h"
#include "tests/support/scripted_peer.h"

// Time stands still for the client: what it allows itself to wait for a cache in trouble is never
// used up, however many inputs there are.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  return time_point(std::chrono::hours(1));
}

namespace {

using texts = std::vector<std::string>;

// A server with a client of its own: what the one before did wrong holds up nothing.
class conversation {
 public:
  explicit conversation(texts answers)
      : server_("/tmp/fuzz-" + std::to_string(::getpid()), std::move(answers),
                support::ending::hang_up) {
    vk_mm_t *memory = vk_mm_create(malloc, calloc, realloc, free);
    client_.reset(vk_client_create(1, 2, memory, nullptr));
    vk_mm_destroy(memory);
    REQUIRE(vk_server_add(client_.get(), server_.path().c_str(), 0, "s") == VK_OK);
  }
  vk_client_t *client() const { return client_.get(); }

 private:
  support::scripted_peer server_;
  std::unique_ptr<vk_client_t, call_to_release<vk_client_destroy>> client_;
};

struct result {
  int status = VK_OK;
  texts pairs = {};  // field, value, field and so on

  bool operator==(const result &) const = default;
};

// Reads all pairs of a hash but the first.
result ask(const conversation &with) {
  result got;
  size_t count = 0;
  char **fields = nullptr;
  char **values = nullptr;
  got.status = vk_hgetall(with.client(), "k", 1, &count, &fields, &values, 1, 0);
  REQUIRE(got.status == VK_OK || (fields == nullptr && values == nullptr && count == 0));
  const text_array owned_fields(fields, count), owned_values(values, count);
  for (size_t i = 0; i < count; ++i) {
    for (const char *text : {fields[i], values[i]}) got.pairs.emplace_back(text ? text : "");
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
  static const std::string greeting = "*1\r\n" + bulk("master") + "+OK\r\n";
  static const std::string answer = answer_of("name", "value");
  const result answered{VK_OK, {"name", "value"}};
  const std::string text(bytes);

  // As an answer, after which the server hangs up.
  const result got = ask(conversation({greeting, text}));
  for (const std::string &handed_out : got.pairs) REQUIRE(bytes.find(handed_out) != bytes.npos);
  // As the greeting: only a server that says to be a master gets further commands.
  const int status = ask(conversation({text})).status;
  const bool may_be_master = bytes.starts_with('*') && bytes.find("master") != bytes.npos;
  REQUIRE(status == VK_ERR_DOWN || (status == VK_ERR_IO && may_be_master));
  // As what an answer holds, and as what follows it.
  for (const std::string &behind : {std::string(), text}) {
    const conversation one({greeting, answer_of("", text) + behind, answer});
    REQUIRE(ask(one) == (result{VK_OK, {"", text.c_str()}}));
    REQUIRE(ask(one) == (behind.empty() ? answered : result{VK_ERR_IO}));
  }
}
