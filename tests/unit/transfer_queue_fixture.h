// A DisDB and the queues of two nodes in it.
#ifndef TESTS_UNIT_TRANSFER_QUEUE_FIXTURE_H
#define TESTS_UNIT_TRANSFER_QUEUE_FIXTURE_H

#include <chrono>

#include "tests/unit/velkan_fixture.h"
#include "transfer/queue.h"

using state = queue_state;

inline double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class TransferQueue : public testing::Test {
 protected:
  // The text of a reply; that of the first element of a list.
  std::string run(std::initializer_list<std::string_view> words) const {
    vk_reply reply;
    EXPECT_EQ(vk_run(direct.handle(), std::vector<std::string_view>(words), reply), VK_OK);
    const redisReply &first = reply->elements > 0 ? *reply->element[0] : *reply;
    if (first.type == REDIS_REPLY_INTEGER) return std::to_string(first.integer);
    return first.str == nullptr ? "" : std::string(first.str, first.len);
  }
  std::string score_of(std::string_view set, std::string_view what) const {
    return run({"ZSCORE", set, what});
  }
  queue_entry queue(std::string_view set, const std::string &what, double score) const {
    run({"ZADD", set, std::to_string(score), what});
    return {what, score_of(set, what)};
  }
  vk_client_t *client() const { return cache_client({server.socket()}).release(); }

  support::redis_server server;
  const cache_client direct{{server.socket()}};
  transfer_queue here{client(), "n1"}, there{client(), "n2"};

  const std::string ups = "storage:upqueue:s3:main", dels = "storage:delqueue:s3:main",
                    deleted = "storage:deleted:s3:main", unclear = "storage:unclear:s3:main";
  const std::string key = "vm/1/2/3.wav", member = "eu@n1:" + key;
  const upload_member upload{"eu", "n1", key};
  const delete_member one{"eu", "n1", false, key}, all{"eu", "n1", true, "vm/1/2"};
};

#endif
