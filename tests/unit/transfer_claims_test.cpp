// Which job may work on a key, and what a job that ended unclearly leaves to those after it.
#include <thread>

#include "tests/unit/transfer_queue_fixture.h"

namespace {

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
  // A job counts only removals that ended after it began, by a clock of milliseconds.
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
    here.note_unclear_removal("eu", {key});  // brings nothing
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
  here.note_unclear_removal(upload.location, {upload.key});
  EXPECT_EQ(ends_as(1002), state::unclear) << "a removal that may follow";
  queue(unclear, "eu:" + key + ":older", now() - 61);
  EXPECT_EQ(ends_as(1002), state::unchanged);
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

}  // namespace
