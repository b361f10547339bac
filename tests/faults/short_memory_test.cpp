// The platform libraries when memory is short: whichever allocation fails, a call gives its error
// result or the right one.
#include <functional>

#include "main/sql/query.h"
#include "platform/base/parseconfig.h"
#include "platform/base/text_array.h"
#include "tests/support/sandbox.h"
#include "tests/unit/velkan_fixture.h"

extern "C" long allocations_made, failing_allocation;

namespace {

// Makes the first allocation of the call fail, then the second, and so on, until none is left to
// fail. The call tells whether it succeeded; some failure must be one that it cannot do without.
void fail_each_allocation(const std::function<bool()> &call) {
  bool ever_refused = false;
  for (long number = 1;; ++number) {
    SCOPED_TRACE(number);
    allocations_made = 0;
    failing_allocation = number;
    const bool succeeded = call();
    failing_allocation = 0;
    if (allocations_made < number) {
      EXPECT_TRUE(succeeded);
      break;
    }
    ever_refused |= !succeeded;
  }
  EXPECT_TRUE(ever_refused);
}

TEST(ShortMemory, AConfigurationIsTakenWholeOrNotAtAll) {
  support::sandbox box({.use_database = false, .use_cache = false});
  const std::string value(100, 'v');
  box.write_file("file", "FIRST " + value + "\nLAST " + value + "\n");
  const std::string path = box.path("file");
  fail_each_allocation([&] {
    std::string first, last;
    const parseconfig_entry entries[] = {{"FIRST", &first}, {"LAST", &last}};
    const int status = parseconfig(path.c_str(), entries, std::size(entries));
    EXPECT_TRUE(status == -1 || (first == value && last == value));
    return status == 0;
  });
}

TEST(ShortMemory, TheCacheGivesAllFieldsOrNone) {
  const support::redis_server server({.password = "secret"});
  const std::string socket = server.socket(), key = "secret";
  ASSERT_EQ(cache_client({socket}, key).set("h", "f", "v"), VK_OK);
  vk_mm_t *const memory = vk_mm_create(malloc, calloc, realloc, free);
  const std::unique_ptr<vk_mm_t, call_to_release<vk_mm_destroy>> owned_memory(memory);
  fail_each_allocation([&] {
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
    EXPECT_EQ(values != nullptr, status == VK_OK);
    if (status != VK_OK) return false;
    const text_array owned_values(values, count);
    EXPECT_STREQ(values[0], "v");
    EXPECT_EQ(values[1], nullptr);
    return true;
  });
}

TEST(ShortMemory, AStatementGivesAllItsRowsOrAReason) {
  const support::sandbox box;
  qx_sql_pool_init();
  fail_each_allocation([] {
    const long failure = std::exchange(failing_allocation, 0);
    const sql_session session;
    allocations_made = 0;
    failing_allocation = failure;
    MYSQL_RES *rows = nullptr;
    const int status = fr_sql_conn_query(session.get(), 1, &rows,
                                         "SELECT seq, REPEAT('x', 3000) FROM seq_1_to_%d", 40);
    const sql_result owned(rows);
    EXPECT_EQ(rows == nullptr ? 0 : mysql_num_rows(rows), status == 0 ? 40U : 0U);
    EXPECT_EQ(*mysql_error(fr_sql_conn_get_mysql(session.get())) == '\0', status == 0);
    return status == 0;
  });
}

}  // namespace
