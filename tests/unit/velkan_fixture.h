// A cache client for the tests, with its calls in short form.
#ifndef TESTS_UNIT_VELKAN_FIXTURE_H
#define TESTS_UNIT_VELKAN_FIXTURE_H

#include <gtest/gtest.h>

#include <initializer_list>
#include <thread>

#include "platform/velkan/handles.h"
#include "platform/velkan/velkan.h"
#include "tests/support/servers.h"

using optional_text = std::optional<std::string>;

class cache_client {
 public:
  explicit cache_client(std::initializer_list<std::string> hosts, const std::string &key = "") {
    vk_mm_t *memory = vk_mm_create(malloc, calloc, realloc, free);
    client_ = vk_client_create(1, 2, memory, nullptr);
    vk_mm_destroy(memory);
    for (const std::string &host : hosts) EXPECT_EQ(add(host, 0), VK_OK);
    EXPECT_EQ(vk_select(client_, 3, 0), VK_OK);
    if (!key.empty()) {
      EXPECT_EQ(vk_set_database_key(client_, 3, key.data(), key.size()), VK_OK);
    }
  }
  cache_client(const cache_client &) = delete;
  cache_client &operator=(const cache_client &) = delete;
  ~cache_client() { vk_client_destroy(client_); }

  int add(const std::string &host, int port) const {
    return vk_server_add(client_, host.c_str(), port, "a:b");
  }
  vk_client_t *handle() const { return client_; }
  vk_client_t *release() { return std::exchange(client_, nullptr); }

  int set(const std::string &key, const std::string &field, const std::string &value) const {
    return vk_hset(client_, key.data(), key.size(), field.data(), field.size(), value.data(),
                   value.size(), 0);
  }
  int get(const std::string &key, const std::string &field, optional_text &value) const {
    char *text = nullptr;
    size_t length = 0;
    const int status = vk_hget_whole(client_, key.data(), key.size(), field.data(), field.size(),
                                     &text, &length, "", 1);
    const c_string owned(text);
    value = text == nullptr ? std::nullopt : optional_text(std::string(text, length));
    return status;
  }
  int get(const std::string &key, const std::string &field) const {
    optional_text ignored;
    return get(key, field, ignored);
  }

 private:
  vk_client_t *client_ = nullptr;
};

// The text of a reply to a command given beside the client.
inline std::string ask(const support::redis_server &server, std::vector<const char *> words) {
  const vk_context context(redisConnectUnix(server.socket().c_str()));
  const vk_reply reply = own_reply(
      redisCommandArgv(context.get(), static_cast<int>(words.size()), words.data(), nullptr));
  return reply && reply->str != nullptr ? std::string(reply->str, reply->len) : "";
}

// Makes it a replica and waits for it to find its master.
inline void follow(const support::redis_server &replica, const support::redis_server &master) {
  ask(replica, {"REPLICAOF", "127.0.0.1", std::to_string(master.port()).c_str()});
  EXPECT_TRUE(support::eventually([&] {
    return ask(replica, {"INFO", "replication"}).find("master_link_status:up") != std::string::npos;
  })) << "the replica did not find its master";
}

#endif
