// The work on the queues, against a real store and a real DisDB.
#include <sys/resource.h>

#include "tests/s3/uploads_fixture.h"
#include "tests/support/scripted_server.h"
#include "transfer/multipart.h"
#include "transfer/receipt.h"

namespace {

constexpr const char *key = "vm/1/2/3.wav";

std::string bytes(size_t count) {
  std::string text(count, '\0');
  for (size_t i = 0; i < count; ++i) text[i] = static_cast<char>(i * 2654435761U >> 13U);
  return text;
}

class Uploads : public testing::Test {
 protected:
  bool is_idle() { return world.queued() == "0 0" && here.is_idle(); }
  // For the text of a failure.
  std::string trouble() {
    std::string text = world.queued();
    for (const parked_member &what : here.workers.parked()) {
      text += "\n" + what.member + ": " + what.reason;
    }
    for (const running_job &what : here.state.running()) text += "\n" + what.name + " runs";
    return text;
  }

  support::log_capture log;
  transfer_world world;
  transfer_node here{world, "n1"};
};

TEST_F(Uploads, FilesOfEverySizeComeToTheStoreAsTheyAre) {
  const size_t sizes[] = {
      0, 1, 10'000, (6 << 20) - 1, 6 << 20, (6 << 20) + 1, 10 << 20, (10 << 20) + 1};
  for (const size_t size : sizes) {
    here.commit("rc/1/2/" + std::to_string(size) + ".wav", bytes(size), 1000.5);
  }
  here.start();
  ASSERT_TRUE(eventually([&] { return is_idle(); }, 100s)) << trouble();
  for (const size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string name = "rc/1/2/" + std::to_string(size) + ".wav";
    EXPECT_TRUE(world.object(name) == bytes(size));
    const s3_answer head = world.client.head(name);
    EXPECT_EQ(head.metadata.at("queued"), "1000.5");
    EXPECT_EQ(head.metadata.at("node"), "n1");
    const unique_fd file(::open(here.path(name).c_str(), O_RDONLY));
    const auto noted = read_receipt(file.get());
    ASSERT_TRUE(noted);
    EXPECT_EQ(noted->etag, head.etag);
    EXPECT_EQ(noted->length, std::ssize(bytes(size)));
  }
  EXPECT_EQ(here.state.counters.uploads, std::size(sizes));
  EXPECT_EQ(world.redis({"DBSIZE"}), "0") << "no claim is left";
}

TEST_F(Uploads, AnAnnouncedFileIsUploadedAtOnce) {
  here.start();
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  std::this_thread::sleep_for(700ms);
  const double start = qx_get_tstamp();
  here.commit(key, "hello");
  ASSERT_TRUE(eventually([&] { return world.object(key).has_value(); }));
  EXPECT_LT(qx_get_tstamp() - start, 20);
}

TEST_F(Uploads, ASecondCommitDuringAnUploadIsUploadedAfterIt) {
  here.control.bytes_per_second = 100'000;
  here.start();
  here.commit(key, bytes(500'000));
  ASSERT_TRUE(eventually([&] { return here.control.sent > 50'000; }));
  here.commit(key, "second");
  here.control.bytes_per_second = 0;
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  EXPECT_EQ(world.object(key), "second");
  EXPECT_EQ(here.state.counters.uploads, 1U);
}

TEST_F(Uploads, ADeleteDuringAnUploadWinsWhenItIsLaterAndLosesWhenItIsEarlier) {
  const struct {
    double later;
    bool stays;
  } rows[] = {{10, false}, {-10, true}, {0.5, true}};
  for (const auto &row : rows) {
    for (const std::string &what : {"o:" + std::string(key), std::string("r:vm/1/2")}) {
      SCOPED_TRACE(testing::Message() << row.later << " " << what);
      const double at = qx_get_tstamp() + 5;
      transfer_node node(world, "n1");
      node.control.bytes_per_second = 500'000;
      node.start();
      node.commit(key, bytes(300'000), at);
      ASSERT_TRUE(eventually([&] { return node.control.sent > 50'000; }));
      node.remove(what, at + row.later);
      ASSERT_TRUE(eventually([&] { return world.queued() == "0 0" && node.is_idle(); }));
      EXPECT_EQ(world.object(key).has_value(), row.stays);
      EXPECT_EQ(node.has_file(key), row.stays);
      world.redis({"FLUSHALL"});
    }
  }
}

TEST_F(Uploads, AFileThatIsMissingIsNamedAndKeptUnlessItsDeletionIsKnown) {
  log.expect(FR_LOG_WARNING, "not in the cache");
  world.queue(up_queue, here.member(key), 1000);
  world.queue(up_queue, here.member("vm/1/2/4.wav"), 1000);
  here.remove("o:vm/1/2/4.wav", 1000.5);
  world.queue(delete_queue, "us@n2:o:vm/1/2/5.wav");  // for a node that knows where "us" is
  for (int i = 0; i < 98; ++i) here.commit("rc/1/2/" + std::to_string(i) + ".wav", "x");
  here.start();
  ASSERT_TRUE(eventually([&] { return world.queued() == "1 1"; })) << world.queued();
  EXPECT_TRUE(world.is_queued(up_queue, here.member(key)));
  ASSERT_TRUE(eventually([&] { return here.workers.parked().size() == 1; }));
  EXPECT_EQ(here.workers.parked()[0].member, here.member(key));
  EXPECT_FALSE(here.is_idle());
  here.commit(key, "back");
  EXPECT_TRUE(eventually([&] { return here.is_idle(); })) << "a new commit is not held back";
  EXPECT_TRUE(here.workers.parked().empty());
}

TEST_F(Uploads, EachNodeUploadsItsOwnAndAnyNodeDeletes) {
  transfer_node there(world, "n2");
  for (int i = 0; i < 20; ++i) {
    const std::string name = std::to_string(i) + ".wav";
    here.commit("vm/1/2/" + name, "here");
    there.commit("vm/1/3/" + name, "there");
  }
  there.start();
  ASSERT_TRUE(eventually([&] { return world.queued() == "20 0"; }));
  EXPECT_FALSE(world.object("vm/1/2/7.wav"));
  here.start();
  ASSERT_TRUE(eventually([&] { return world.queued() == "0 0"; }));
  here.stop();
  // What was put again since the deletion stays, also below a prefix.
  const double now = qx_get_tstamp();
  there.commit("vm/1/3/5.wav", "again", now + 20);
  ASSERT_TRUE(eventually([&] { return world.object("vm/1/3/5.wav") == "again"; }));
  here.remove("r:vm/1/3", now + 10);
  here.remove("o:vm/1/2/7.wav", now + 10);
  here.remove("o:vm/1/2/none.wav", now + 10);
  // Whether it was deleted within the second is for its own node to say.
  world.client.put("vm/1/2/late.wav", support::stored_bytes("x").body(),
                   {{"queued", std::to_string(now - 10.5)}, {"node", "n1"}});
  here.remove("o:vm/1/2/late.wav", now - 10);
  there.workers.wake();
  ASSERT_TRUE(eventually([&] { return world.queued() == "0 1"; }));
  // An upload that waited through the deletion brings nothing, and takes nothing with it.
  here.commit("vm/1/3/5.wav", "old", now);
  transfer_node restarted(world, "n1");
  restarted.start();
  ASSERT_TRUE(eventually([&] { return world.queued() == "0 0"; }));
  EXPECT_EQ(world.object("vm/1/3/5.wav"), "again");
  EXPECT_EQ(world.client.list("vm/1/3/").objects.size(), 1U);
  EXPECT_EQ(world.client.list("vm/1/2/").objects.size(), 19U);
}

TEST_F(Uploads, AnOlderFileOfAnotherNodeDoesNotReplaceANewerOne) {
  transfer_node there(world, "n2");
  there.commit(key, "newer", 2000);
  there.start();
  ASSERT_TRUE(eventually([&] { return world.queued() == "0 0"; }));
  here.commit(key, "older", 1000);
  here.start();
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  EXPECT_EQ(world.object(key), "newer");
}

TEST_F(Uploads, ADeletionOfAnOwnerDuringItsUploadsTakesTheOlderOnesOnly) {
  const double at = qx_get_tstamp();
  const auto name = [](int i) { return "vm/1/2/" + std::to_string(i); };
  here.control.bytes_per_second = 300'000;
  for (int i = 0; i < 60; ++i) here.commit(name(i), bytes(40'000), at);
  here.start();
  ASSERT_TRUE(eventually([&] { return here.state.counters.uploads >= 10; }));
  here.remove("r:vm/1/2", at + 10);
  for (int i = 50; i < 70; ++i) here.commit(name(i), "again", at + 20);
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  EXPECT_LT(here.state.counters.uploads, 80U) << "some were cancelled";
  EXPECT_EQ(world.client.list("vm/").objects.size(), 20U);
  for (int i = 50; i < 70; ++i) EXPECT_EQ(world.object(name(i)), "again");
}

// An upload in parts begins threads, for which this node has no memory.
TEST_F(Uploads, AJobThatEndsByAnExceptionGivesItsKeyToOtherNodes) {
  const support::background_process there([&] {
    transfer_node node(world, "n2");
    node.commit(key, bytes(7 << 20));
    world.redis({"DEL", up_queue});
    node.start();
    std::this_thread::sleep_for(500ms);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlimit little{pages * 4096 + (4 << 20), RLIM_INFINITY};
    ::setrlimit(RLIMIT_AS, &little);
    world.queue(up_queue, node.member(key));
    node.workers.wake();
    std::this_thread::sleep_for(60s);
    return true;
  });
  ASSERT_TRUE(eventually([&] { return world.redis({"ZCARD", "storage:unclear:s3:main"}) == "1"; }));
  here.start();
  here.remove("o:" + std::string(key), qx_get_tstamp() + 10);
  EXPECT_TRUE(eventually([&] { return world.queued() == "0 0"; })) << trouble();
  EXPECT_EQ(world.object(key), std::nullopt);
}

TEST_F(Uploads, AnUploadInPartsGoesOnAfterAKill) {
  const std::string content = bytes(33 << 20);
  here.commit(key, content, 1000);
  const support::background_process killed([&] {
    transfer_node node(world, "n1");
    node.control.bytes_per_second = 5 << 20;
    node.start();
    std::this_thread::sleep_for(60s);
    return true;
  });
  ASSERT_TRUE(eventually([&] {
    const s3_upload_listing begun = world.client.uploads("");
    return !begun.uploads.empty() && world.client.parts(key, begun.uploads[0].id).parts.size() >= 3;
  }));
  killed.kill(SIGKILL);
  here.start();
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  EXPECT_TRUE(world.object(key) == content);
  EXPECT_LT(here.control.sent, 19U << 20U) << "parts that were there are not sent again";
  EXPECT_TRUE(world.client.uploads("").uploads.empty());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(
                              std::filesystem::path(here.path(key)).parent_path()),
                          {}),
            1)
      << "no record is left";
}

TEST_F(Uploads, AnUploadInPartsThatTheStorePutTogetherWronglyIsBegunAnew) {
  const std::string content = bytes(7 << 20);
  const support::stored_bytes file(content);
  const std::string digest = s3_hex(file.body().sha256);
  ASSERT_TRUE(world.client.put(key, support::stored_bytes(std::string(7 << 20, 'x')).body(),
                               {{"sha256", digest}, {"queued", "1000"}, {"node", "n1"}}));
  here.commit(key, content, 1000);
  std::ofstream(parts_record_path(here.path(key))) << "gone\n1000\n7340032\n5242880\n"
                                                   << digest << "\n";
  here.start();
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  EXPECT_TRUE(world.object(key) == content);
}

TEST_F(Uploads, ASmallerFileEndsTheUploadInPartsOfALargerOne) {
  std::string id;
  ASSERT_TRUE(world.client.begin_parts(key, {}, id));
  here.commit(key, "small");
  const std::string record = parts_record_path(here.path(key));
  std::ofstream(record) << id << "\nof a larger file\n";
  here.start();
  ASSERT_TRUE(eventually([&] { return is_idle(); })) << trouble();
  EXPECT_TRUE(world.client.uploads("").uploads.empty());
  EXPECT_FALSE(std::filesystem::exists(record));
}

TEST_F(Uploads, WhatAStoreDamagesIsNotTakenForStored) {
  const support::scripted_server liar(
      support::http_answer("200 OK", "ETag: \"5d41402abc4b2a76b9719d911017c592\"\r\n"));
  transfer_node node(world, "n1");
  node.move_to(liar.endpoint());
  node.start();
  node.commit(key, "not hello");
  ASSERT_TRUE(eventually([&] { return node.state.counters.upload_failures > 0; }));
  EXPECT_TRUE(world.is_queued(up_queue, node.member(key)));
  EXPECT_EQ(node.locations.report()[0].state, "up") << "it may be the key's own trouble";
  log.expect(FR_LOG_WARNING, "another checksum");
  for (const char *other : {"vm/1/2/4.wav", "vm/1/2/5.wav"}) node.commit(other, "not hello");
  EXPECT_TRUE(eventually([&] { return node.locations.report()[0].state == "resting"; }));
}

TEST_F(Uploads, AStoreThatRefusesKeyAfterKeyIsGivenAShortRest) {
  log.expect(FR_LOG_WARNING, "location eu is refusing");
  const s3_answer refused{.outcome = s3_outcome::refused, .status = 400};
  for (int i = 0; i < 8; ++i) here.locations.client("eu").tell(refused);
  EXPECT_FALSE(here.locations.report()[0].state == "up");
  EXPECT_LT(here.locations.report()[0].retry_at, qx_get_tstamp() + 5);
}

}  // namespace
