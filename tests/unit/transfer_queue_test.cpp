// The steps of the transfer protocol against a real DisDB.
#include "transfer/queue.h"

#include <chrono>
#include <thread>

#include "tests/unit/velkan_fixture.h"
#include "transfer/backoff.h"

namespace {

using support::redis_server;
using state = queue_state;

double now() {
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

  redis_server server;
  const cache_client direct{{server.socket()}};
  transfer_queue here{client(), "n1"}, there{client(), "n2"};

  const std::string ups = "storage:upqueue:s3:main", dels = "storage:delqueue:s3:main",
                    deleted = "storage:deleted:s3:main", unclear = "storage:unclear:s3:main";
  const std::string key = "vm/1/2/3.wav", member = "eu@n1:" + key;
  const upload_member upload{"eu", "n1", key};
  const delete_member one{"eu", "n1", false, key}, all{"eu", "n1", true, "vm/1/2"};
};

TEST_F(TransferQueue, AMemberIsLocationNodeAndKeyAndNothingElseIsOne) {
  const auto up = upload_member::parse("eu@n@1:rc/1/2/3.");
  ASSERT_TRUE(up);
  EXPECT_EQ(up->location + "|" + up->node + "|" + up->key, "eu|n@1|rc/1/2/3.");
  const auto prefix = delete_member::parse("eu@n1:r:rc/1/2/");
  ASSERT_TRUE(prefix);
  EXPECT_EQ(prefix->location + "|" + prefix->node + "|" + prefix->key, "eu|n1|rc/1/2");
  EXPECT_TRUE(prefix->whole_prefix);
  for (const char *bad : {"", "eu@n1", "eu@n1:", "eu@n1:x:k", "eu@n1:r:/", "eu@n1:o:"}) {
    EXPECT_FALSE(delete_member::parse(bad)) << bad;
  }
}

TEST_F(TransferQueue, AMillionMembersOfOtherNodesAreFilteredInTheServer) {
  run({"EVAL",
       "for i = 1, 10000 do redis.call('ZADD', KEYS[1], i, 'eu@n17:vm/1/2/' .. i .. '.wav') end",
       "1", ups});
  for (const double at : {0.5, 5000.5, 20000.0}) {
    queue(ups, "eu@n1:rc/1/2/" + std::to_string(at) + ".wav", at);
  }
  queue(ups, "eu@n1:other:key", 2);
  for (const char *what : {"eu@n1:o:k", "eu@n1:r:k", "eu@n17:o:k"}) queue(dels, what, 1);
  std::string scores;
  int pages = 0;
  for (long cursor = 0; cursor >= 0; ++pages) {
    const auto page = here.uploads(cursor);
    ASSERT_TRUE(page);
    for (const queue_entry &entry : *page) scores += entry.score + " ";
  }
  EXPECT_EQ(scores, "0.5 5000.5 20000 ");
  EXPECT_EQ(pages, 3);
  const auto counts = here.summary();
  ASSERT_TRUE(counts);
  EXPECT_EQ(counts->uploads, 3);
  EXPECT_EQ(counts->all_uploads, 10'004);
  EXPECT_EQ(counts->oldest_upload, 0.5);
  EXPECT_EQ(counts->oldest_member, "eu@n1:rc/1/2/0.500000.wav");
  EXPECT_EQ(counts->own_deletes, 2);
  EXPECT_EQ(here.place_of(queue_kind::uploads, 5000.5), 5002);

  // A page that is full goes on behind its last member.
  long cursor = 0, count = 0;
  transfer_queue other(client(), "n17");
  while (cursor >= 0) count += static_cast<long>(other.uploads(cursor)->size());
  EXPECT_EQ(count, 10'000);
}

TEST_F(TransferQueue, AMemberLeavesTheQueueOnlyWithTheScoreThatWasRead) {
  const queue_entry read = queue(ups, member, 1700000000.1234567);
  EXPECT_EQ(read.score, "1700000000.123457");
  ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
  queue(ups, member, 1700000001);
  EXPECT_EQ(here.end_upload(read, upload, 60), state::renewed);
  EXPECT_EQ(here.begin_upload(read, upload), state::renewed);

  const queue_entry again{member, score_of(ups, member)};
  ASSERT_EQ(here.begin_upload(again, upload), state::unchanged);
  EXPECT_EQ(here.end_upload(again, upload, 60), state::unchanged);
  EXPECT_EQ(here.begin_upload(again, upload), state::gone);
  EXPECT_EQ(run({"KEYS", "*"}), "") << "no claim is left";
}

TEST_F(TransferQueue, ADeletionCoversUploadsThatAreMoreThanASecondOlder) {
  const struct {
    double later;
    state begin, end;
  } rows[] = {{-0.5, state::unchanged, state::unchanged},
              {0, state::contested, state::unchanged},
              {1, state::contested, state::unchanged},
              {1.5, state::deleted, state::deleted}};
  for (const auto &row : rows) {
    for (const delete_member &what : {one, all}) {
      SCOPED_TRACE(testing::Message() << row.later << " " << what.key);
      run({"FLUSHALL"});
      const queue_entry read = queue(ups, member, 1000);
      const std::string name = what.whole_prefix ? "eu@n9:r:vm/1/2" : "eu@n9:o:" + key;
      const queue_entry deletion = queue(dels, name, 1000 + row.later);
      // Made known although the key is claimed.
      ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
      EXPECT_EQ(there.begin_delete(deletion, what),
                what.whole_prefix ? state::unchanged : state::claimed);
      there.leave_delete(what);
      EXPECT_EQ(here.end_upload(read, upload, 60), row.end);
      if (row.end == state::deleted) {
        EXPECT_EQ(here.drop_upload(read, upload, 60), state::unchanged);
      }
      EXPECT_EQ(score_of(ups, member), "");

      queue(ups, member, 1000);
      EXPECT_EQ(here.begin_upload(read, upload), row.begin);
      here.leave_upload(read, upload);
      EXPECT_EQ(here.deleted_at(upload), 1000 + row.later);
    }
  }
  EXPECT_EQ(score_of(ups, member), "1000") << "what is left stays in the queue";
}

TEST_F(TransferQueue, AKeyHasOneJobAndAJobThatLostItsClaimEndsUnclear) {
  const queue_entry read = queue(ups, member, 1000), deletion = queue(dels, "eu@n1:o:" + key, 900);
  ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
  EXPECT_EQ(here.begin_upload(read, upload), state::claimed);
  EXPECT_EQ(there.begin_delete(deletion, one), state::claimed);
  const std::string claim = "storage:claim:s3:main:eu:" + key;
  run({"PEXPIRE", claim, "1000"});
  here.renew_claims();
  EXPECT_GT(std::stoi(run({"PTTL", claim})), 50'000);

  run({"DEL", claim});
  ASSERT_EQ(there.begin_delete(deletion, one), state::unchanged);
  EXPECT_EQ(here.end_upload(read, upload, 60), state::claimed);
  EXPECT_NE(score_of(unclear, "eu:" + key), "");
  run({"DEL", ups, unclear});
  EXPECT_EQ(here.end_upload(read, upload, 60), state::gone);
  EXPECT_NE(score_of(unclear, "eu:" + key), "") << "also when the member went meanwhile";
  EXPECT_EQ(here.is_claimed("eu", key), true) << "the claim of another is left alone";
  EXPECT_EQ(there.drop_delete(deletion, one), state::unchanged);
  EXPECT_EQ(here.is_claimed("eu", key), false);
}

TEST_F(TransferQueue, WhatAKilledProcessClaimedIsTakenOverByTheNextOneOfItsNode) {
  const queue_entry read = queue(ups, member, 1000);
  ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
  transfer_queue restarted(client(), "n1");
  EXPECT_EQ(restarted.begin_upload(read, upload), state::unchanged);
  EXPECT_NE(score_of(unclear, "eu:" + key), "") << "what it sent may still arrive";
  EXPECT_EQ(here.end_upload(read, upload, 60), state::claimed);
  EXPECT_EQ(restarted.end_upload(read, upload, 60), state::unchanged);
  transfer_queue third(client(), "n1");
  ASSERT_EQ(restarted.begin_upload(queue(ups, member, 2000), upload), state::unchanged);
  run({"DEL", unclear});
  const queue_entry deletion = queue(dels, "eu@n1:o:" + key, 900);
  EXPECT_EQ(third.begin_delete(deletion, one), state::unchanged);
  EXPECT_EQ(third.end_delete(deletion, one, 60), state::unclear);
}

TEST_F(TransferQueue, AWholePrefixThatIsBeingDeletedHoldsUploadsBack) {
  const queue_entry read = queue(ups, member, 1000),
                    second = queue(ups, "eu@n1:vm/1/2/4.wav", 1000),
                    deletion = queue(dels, "eu@n2:r:vm/1/2", 900);
  const upload_member other{"eu", "n1", "vm/1/2/4.wav"};
  const queue_entry third = queue(ups, "eu@n3:vm/1/2/5.wav", 1000);
  const upload_member early{"eu", "n3", "vm/1/2/5.wav"};
  transfer_queue elsewhere(client(), "n3");
  ASSERT_EQ(elsewhere.begin_upload(third, early), state::unchanged);
  ASSERT_EQ(here.begin_upload(second, other), state::unchanged);
  ASSERT_EQ(there.begin_delete(deletion, all), state::unchanged);
  EXPECT_EQ(here.begin_upload(read, upload), state::claimed);
  EXPECT_EQ(here.end_upload(second, other, 60), state::claimed) << "its object may just go";
  EXPECT_EQ(there.end_delete(deletion, all, 60), state::unchanged);
  EXPECT_EQ(elsewhere.end_upload(third, early, 60), state::claimed) << "its object may have gone";
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(here.begin_upload(second, other), state::unchanged);
  EXPECT_EQ(here.end_upload(second, other, 60), state::unchanged);
}

TEST_F(TransferQueue, ADeletionStaysUntilNoUnclearUploadCanFollowIt) {
  for (const delete_member &what : {one, all}) {
    SCOPED_TRACE(what.key);
    const queue_entry read = queue(ups, member, 1000);
    ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
    here.leave_upload(read, upload, transfer_end::unclear);
    ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
    EXPECT_EQ(here.drop_upload(read, upload, 60), state::unclear);
    const queue_entry deletion =
        queue(dels, "eu@n1:" + std::string(what.whole_prefix ? "r:" : "o:") + what.key, 500);
    for (const state expected : {state::unclear, state::unchanged}) {
      ASSERT_EQ(there.begin_delete(deletion, what), state::unchanged);
      EXPECT_EQ(there.end_delete(deletion, what, 60), expected);
      queue(unclear, "eu:" + key, now() - 61);
    }
  }
}

TEST_F(TransferQueue, AnUploadIsMadeAgainWhileSomethingOlderMayFollowIt) {
  const auto ends_as = [this](double score) {
    const queue_entry read = queue(ups, member, score);
    EXPECT_EQ(here.begin_upload(read, upload), state::unchanged);
    return here.end_upload(read, upload, 60);
  };
  queue_entry read = queue(ups, member, 1000);
  ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
  here.leave_upload(read, upload, transfer_end::unclear);
  EXPECT_EQ(ends_as(1000), state::unchanged) << "what may follow is the same file";
  EXPECT_EQ(ends_as(now() + 1), state::unclear) << "queued again after the unclear end";
  run({"DEL", unclear});

  read = queue(ups, member, 1000);
  ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
  queue(ups, member, 1001);
  here.leave_upload(read, upload, transfer_end::unclear);
  EXPECT_EQ(ends_as(1001), state::unclear) << "queued again before it";
  run({"DEL", unclear});

  transfer_queue killed(client(), "n1");
  read = queue(ups, member, 1000);
  ASSERT_EQ(killed.begin_upload(read, upload), state::unchanged);
  EXPECT_EQ(ends_as(1001), state::unclear) << "what a killed process sent";
  run({"DEL", unclear});
  here.note_unclear_removal(upload);
  EXPECT_EQ(ends_as(1002), state::unclear) << "a removal that may follow";
  queue(unclear, "eu:" + key + ":older", now() - 61);
  EXPECT_EQ(ends_as(1002), state::unchanged);
}

TEST_F(TransferQueue, DeletionsAreKeptForTheirTimeAndForAllOlderUploads) {
  constexpr int day = 86'400;
  for (const int age : {6, 8, 10}) {
    queue(deleted, "eu:o:" + std::to_string(age), now() - age * day);
  }
  queue(unclear, "eu:old", now() - 61);
  queue(ups, member, now() - 9 * day);
  here.trim(60, 7 * day);
  EXPECT_EQ(run({"ZRANGE", deleted, "0", "-1"}), "eu:o:8");
  EXPECT_EQ(run({"ZCARD", unclear}), "0");
  queue(ups, member, now() - 40 * day);
  queue(deleted, "eu:o:35", now() - 35 * day);
  here.trim(60, 7 * day);
  EXPECT_EQ(run({"ZRANGE", deleted, "0", "-1"}), "eu:o:8");
  run({"DEL", ups});
  here.trim(60, 7 * day);
  EXPECT_EQ(run({"ZRANGE", deleted, "0", "-1"}), "eu:o:6");
}

TEST_F(TransferQueue, AFileIsQueuedAgainUnlessItIsQueuedOrWasDeleted) {
  EXPECT_EQ(here.is_queued("eu@n1", key), false);
  EXPECT_EQ(here.queue_again(upload, 1000), state::unchanged);
  EXPECT_EQ(here.is_queued("eu@n1", key), true);
  EXPECT_EQ(here.queue_again(upload, 2000), state::unchanged);
  EXPECT_EQ(score_of(ups, member), "1000");
  EXPECT_EQ(here.deleted_at(upload), 0);
  queue(deleted, "eu:r:vm/1/2", 1500);
  EXPECT_EQ(here.queue_again(upload, 500), state::deleted) << "the file is older";
  EXPECT_EQ(here.queue_again(upload, 1000), state::deleted);
  EXPECT_EQ(here.queue_again(upload, 1499), state::unchanged);
}

TEST_F(TransferQueue, WhatTheDisDbSaysToAChangeThatItRefusesIsKnownUntilItMakesOne) {
  const queue_entry read = queue(ups, member, 1000);
  run({"CONFIG", "SET", "maxmemory", "1"});
  EXPECT_EQ(here.begin_upload(read, upload), state::down);
  EXPECT_TRUE(here.refusal().starts_with("OOM ")) << here.refusal();
  run({"CONFIG", "SET", "maxmemory", "0"});
  EXPECT_EQ(here.begin_upload(read, upload), state::unchanged);
  EXPECT_EQ(here.refusal(), "");
}

TEST_F(TransferQueue, AClaimIsSureWhileItIsRenewed) {
  const queue_entry read = queue(ups, member, 1000);
  EXPECT_FALSE(here.holds(upload));
  ASSERT_EQ(here.begin_upload(read, upload), state::unchanged);
  EXPECT_TRUE(here.holds(upload));
  here.renew_claims();
  EXPECT_TRUE(here.holds(upload));
  run({"DEL", "storage:claim:s3:main:eu:" + key});
  here.renew_claims();
  EXPECT_FALSE(here.holds(upload)) << "another one may have it";
}

TEST(TransferBackoff, MembersBeyondItsRoomWaitAndHoldNobodyUp) {
  backoff_table table;
  const auto item = [](int i) {
    return work_item{queue_kind::uploads, {"eu@n1:" + std::to_string(i), "1000"}};
  };
  constexpr int count = 30'000;
  for (int i = 0; i < count; ++i) {
    table.put_aside(item(i), {job_end::parked, "lost"}, 1e9, 3600);
  }
  EXPECT_EQ(table.parked_count(), 10'000U);
  EXPECT_NEAR(static_cast<double>(table.waiting(1e9)), count - 10'000, 1000);
  int free = 0;
  for (int i = 0; i < count; ++i) {
    EXPECT_TRUE(table.holds(item(i), 1e9)) << i;
    free += table.holds(item(count + i), 1e9) ? 0 : 1;
  }
  EXPECT_GT(free, count * 9 / 10);
  EXPECT_FALSE(table.holds(item(count - 1), 1e9 + 3600));
}

TEST_F(TransferQueue, APolicyThatEvictsQueuesIsNamedAndADisDbThatIsAwayIsDown) {
  EXPECT_EQ(here.dangerous_policy(), "");
  run({"CONFIG", "SET", "maxmemory-policy", "allkeys-lru"});
  EXPECT_EQ(here.dangerous_policy(), "") << "nothing is evicted without a limit";
  run({"CONFIG", "SET", "maxmemory", "100mb"});
  EXPECT_EQ(here.dangerous_policy(), "allkeys-lru");
  run({"CONFIG", "SET", "maxmemory-policy", "volatile-ttl"});
  EXPECT_EQ(here.dangerous_policy(), "volatile-ttl") << "claims have a time to live";
  server.stop();
  long cursor = 0;
  EXPECT_FALSE(here.uploads(cursor));
  EXPECT_FALSE(here.dangerous_policy());
  EXPECT_FALSE(here.is_queued("eu@n1", key));
  EXPECT_EQ(here.begin_upload({member, "1"}, upload), state::down);
  EXPECT_EQ(here.begin_upload({member, "1"}, upload), state::down) << "no claim is left behind";
}

}  // namespace
