// The steps of the transfer protocol against a real DisDB.
#include "tests/unit/transfer_queue_fixture.h"

namespace {

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
