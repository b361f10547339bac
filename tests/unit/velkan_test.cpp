#include "platform/velkan/command.h"

#include "platform/base/text_array.h"
#include "tests/unit/velkan_fixture.h"

using namespace std::literals;
using support::redis_server;

namespace {

// Elements of an array that was handed out, "-" for what is absent; all of it is freed.
std::string joined(char **array, size_t count) {
  const text_array owned(array, count);
  std::string all;
  for (size_t i = 0; i < owned.count(); i++) {
    all += (i > 0 ? "," : "") + std::string(owned[i] != nullptr ? owned[i] : "-");
  }
  return all;
}

TEST(Velkan, KeysFieldsAndValuesHoldAnyBytes) {
  const redis_server server;
  const cache_client client({server.socket()});
  const std::string all_bytes = "a\0b\r\n\xff$5\r\n"s;
  for (const std::string &text : {all_bytes, ""s, std::string(3 << 20, 'x')}) {
    optional_text value;
    ASSERT_EQ(client.set("k" + all_bytes, "f" + all_bytes, text), VK_OK);
    ASSERT_EQ(client.get("k" + all_bytes, "f" + all_bytes, value), VK_OK);
    EXPECT_TRUE(value == text) << "a value of " << text.size() << " bytes came back changed";
  }
}

// The hash "h" with three fields.
class VelkanHash : public testing::Test {
 protected:
  VelkanHash() {
    EXPECT_EQ(vk_hmset(client.handle(), "h", 1, fields, 3, one, values, lengths, 1), VK_OK);
  }

  const redis_server server;
  const cache_client client{{server.socket()}};
  const char *fields[4] = {"b", "a", "c", "none"};
  const char *values[3] = {"2", "", "3"};
  const size_t one[4] = {1, 1, 1, 4}, lengths[3] = {1, 0, 1};
};

TEST_F(VelkanHash, SeveralFieldsAreReadByBothHandles) {
  for (vk_client_t *handle : {client.handle(), client.handle()->secondary}) {
    size_t count = 0;
    char **found = nullptr;
    ASSERT_EQ(vk_hmget_whole(handle, "h", 1, fields, 4, one, &found, &count, nullptr, "", 1),
              VK_OK);
    EXPECT_EQ(joined(found, count), "2,,3,-");
  }
}

TEST_F(VelkanHash, AWindowOfAWholeHashIsRead) {
  const struct {
    int offset, limit;
    const char *fields, *values;
  } rows[] = {{0, 0, "b,a,c", "2,,3"}, {1, 0, "a,c", ",3"}, {1, 1, "a", ""}, {9, 9, "", ""}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.offset << " " << row.limit);
    size_t count = 0;
    char **names = nullptr, **texts = nullptr;
    ASSERT_EQ(vk_hgetall(client.handle(), "h", 1, &count, &names, &texts, row.offset, row.limit),
              VK_OK);
    EXPECT_EQ(joined(names, count), row.fields);
    EXPECT_EQ(joined(texts, count), row.values);
    ASSERT_EQ(vk_hgetall_whole(client.handle(), "h", 1, &count, &texts, nullptr, row.offset,
                               row.limit, "", 1),
              VK_OK);
    EXPECT_EQ(joined(texts, count), row.values);
  }
}

TEST_F(VelkanHash, WhatIsAbsentIsAMissForAFieldAndAnErrorForAWholeHash) {
  for (const char *key : {"none", "h"}) {
    optional_text value = "old";
    EXPECT_EQ(client.get(key, "none", value), VK_OK);
    EXPECT_EQ(value, std::nullopt);
  }
  size_t count = 1;
  char **names = nullptr, **texts = nullptr;
  EXPECT_EQ(vk_hgetall(client.handle(), "none", 4, &count, &names, &texts, 0, 0), VK_ERR_NOT_FOUND);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(vk_hgetall_whole(client.handle(), "none", 4, &count, &texts, nullptr, 0, 0, "", 1),
            VK_ERR_NOT_FOUND);
  EXPECT_EQ(vk_exists(client.handle(), "none", 4), 0);
  EXPECT_NE(vk_exists(client.handle(), "h", 1), 0);
}

TEST(Velkan, AnErrorReplyIsAnErrorAndTheConnectionGoesOn) {
  const redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  ask(server, {"CONFIG", "RESETSTAT"});
  ask(server, {"EVAL", "redis.call('select', 3) return redis.call('set', 'text', '1')", "0"});
  EXPECT_EQ(client.get("text", "f"), VK_ERR_REPLY);
  EXPECT_EQ(client.set("text", "f", "v"), VK_ERR_REPLY);
  EXPECT_EQ(client.get("h", "f"), VK_OK);
  EXPECT_NE(ask(server, {"INFO", "stats"}).find("total_connections_received:2\r"),
            std::string::npos)
      << "only the two of this test's own were new";
}

TEST(Velkan, AnyCommandOfByteStringsIsRunAndItsErrorIsHandedOut) {
  const redis_server server;
  const cache_client client({server.socket()});
  const std::string_view words[] = {"SET", "a\0b"sv, "\r\n\0"sv}, read[] = {"GET", "a\0b"sv},
                         wrong[] = {"NONE"};
  vk_reply reply;
  ASSERT_EQ(vk_run(client.handle(), words, reply), VK_OK);
  ASSERT_EQ(vk_run(client.handle(), read, reply), VK_OK);
  EXPECT_EQ(std::string_view(reply->str, reply->len), "\r\n\0"sv);
  ASSERT_EQ(vk_run(client.handle(), wrong, reply), VK_ERR_REPLY);
  EXPECT_TRUE(std::string_view(reply->str).starts_with("ERR unknown command"));
  EXPECT_EQ(vk_run(client.handle(), {}, reply), VK_ERR_ARGUMENT);
  EXPECT_EQ(reply, nullptr);
}

TEST(Velkan, ArgumentsThatCannotBeAreRefused) {
  const cache_client client({});
  vk_client_t *handle = client.handle();
  char *value = nullptr;
  EXPECT_EQ(client.get("k", "f"), VK_ERR_CLIENT) << "no server";
  EXPECT_EQ(vk_hget_whole(nullptr, "k", 1, "f", 1, &value, nullptr, "", 1), VK_ERR_CLIENT);
  EXPECT_EQ(vk_hget_whole(handle, nullptr, 1, "f", 1, &value, nullptr, "", 1), VK_ERR_ARGUMENT);
  EXPECT_NE(vk_exists(nullptr, "k", 1), 0) << "who cannot ask must take it to be there";
  EXPECT_EQ(vk_select(handle, -1, 0), VK_ERR_ARGUMENT);
  for (const int port : {0, 65536}) EXPECT_EQ(client.add("host", port), VK_ERR_ARGUMENT);
}

}  // namespace
