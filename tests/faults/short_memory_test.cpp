// The cache client when memory is short: whichever allocation fails, a call gives its error result
// or the right one. The campaign does the same to whole runs, which never read several fields at
// once.
#include "platform/base/text_array.h"
#include "tests/unit/velkan_fixture.h"

extern "C" long allocations_made, failing_allocation;

namespace {

// True when it gives the right fields.
bool read_two_fields(vk_mm_t *memory, const std::string &socket, const std::string &key) {
  vk_client_t *const client = vk_client_create(1, 2, memory, nullptr);
  const std::unique_ptr<vk_client_t, call_to_release<vk_client_destroy>> owned(client);
  if (vk_server_add(client, socket.c_str(), 0, "a:b") != VK_OK ||
      vk_set_database_key(client, 3, key.data(), key.size()) != VK_OK) {
    return false;
  }
  vk_select(client, 3, 0);
  const char *fields[] = {"f", "none"};
  const size_t lengths[] = {1, 4};
  size_t count = 0;
  char **values = nullptr;
  const int status =
      vk_hmget_whole(client, "h", 1, fields, 2, lengths, &values, &count, nullptr, "", 1);
  const text_array found(values, count);
  EXPECT_EQ(values != nullptr, status == VK_OK);
  if (status != VK_OK) return false;
  EXPECT_STREQ(found[0], "v");
  EXPECT_EQ(found[1], nullptr);
  return true;
}

TEST(ShortMemory, TheCacheGivesAllFieldsOrNone) {
  const support::redis_server server({.password = "secret"});
  const std::string socket = server.socket(), key = "secret";
  ASSERT_EQ(cache_client({socket}, key).set("h", "f", "v"), VK_OK);
  const std::unique_ptr<vk_mm_t, call_to_release<vk_mm_destroy>> memory(
      vk_mm_create(malloc, calloc, realloc, free));
  bool is_right = false;
  long number = 0;
  do {
    SCOPED_TRACE(++number);
    allocations_made = 0;
    failing_allocation = number;
    is_right = read_two_fields(memory.get(), socket, key);
    failing_allocation = 0;
  } while (allocations_made >= number);
  EXPECT_TRUE(is_right);
  EXPECT_GT(number, 1);
}

}  // namespace
