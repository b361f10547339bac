// The transfer service as a process, beside a real store.
#include <gtest/gtest.h>

#include <spoolcap/zarn_str.h>
#include "tests/support/object_store.h"
#include "tests/support/transfer_daemon.h"
#include "tests/unit/velkan_fixture.h"

namespace {

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(TransferService, UploadsShowsItsStateAndGoesOnWhereItWasKilled) {
  support::sandbox box{{.use_database = false}};
  const s3_place place = support::new_bucket(support::shared_object_store());
  support::transfer_daemon daemon(box, place, "TRANSFER_METRICS " + box.path("node.prom") + "\n");
  const support::process_result check = daemon.run({"--check"});
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(has(check.out, "ok     location eu")) << check.out;

  daemon.commit("vm/1/2/3.wav", "hello");
  ASSERT_TRUE(daemon.start());
  EXPECT_EQ(daemon.run({"--drain", "20"}).status, 0);
  s3_control control;
  s3_client store(place, control);
  EXPECT_EQ(store.head("vm/1/2/3.wav").length, 5);

  // A member without its file stays, and is named.
  box.redis({"ZADD", "storage:upqueue:s3:main", "1", "eu@n1:vm/1/2/\xff.mp3"});
  EXPECT_EQ(daemon.run({"--drain", "2"}).status, 1);
  const std::string people = daemon.run({"--status"}).out;
  EXPECT_TRUE(has(people, "uploads     1 of this node, oldest")) << people;
  EXPECT_TRUE(has(people, "eu@n1:vm/1/2/\xef\xbf\xbd.mp3\n    its file is not in the cache"));
  EXPECT_TRUE(has(people, "uploads     1, 5 B, failed tries 1")) << people;
  EXPECT_TRUE(has(daemon.run({"--status", "--json"}).out,
                  R"("idle":false,"queue":{"reachable":)"
                  R"(true,"dangerous_policy":"","refusal":"",)"
                  R"("uploads":1,"all_uploads":1,)"));

  daemon.stop(SIGKILL);
  daemon.commit("vm/1/2/3.wav", "hello again");
  ASSERT_TRUE(daemon.start()) << "the socket of the killed one is taken over";
  box.redis({"ZREM", "storage:upqueue:s3:main", "eu@n1:vm/1/2/\xff.mp3"});
  EXPECT_EQ(daemon.run({"--drain", "20"}).status, 0);
  EXPECT_EQ(store.head("vm/1/2/3.wav").length, 11);
  EXPECT_TRUE(has(box.read_file("node.prom").value(), "\nspoolcap_transfer_location_up{location="));
  EXPECT_EQ(daemon.stop().status, 0);
}

// The queue is longer than what is uploaded before the DisDB goes.
TEST(TransferService, LosesNothingWhenTheDisDbRestartsOrFailsOver) {
  std::signal(SIGPIPE, SIG_IGN);  // the sandbox has a connection to a server that goes
  for (const bool is_restart : {true, false}) {
    SCOPED_TRACE(is_restart ? "restart" : "fail-over");
    support::redis_server first({.tcp = true}), second({.tcp = true});
    follow(second, first);
    support::sandbox box{{.use_database = false, .cache = &first}};
    box.write_file("etc/quorvex/disdbase.conf",
                   box.read_file("etc/quorvex/disdbase.conf").value() +
                       "DISDBASE_HOST main:cache:two:" + second.socket() + ":6379\n");
    const s3_place place = support::new_bucket(support::shared_object_store());
    support::transfer_daemon daemon(box, place, "TRANSFER_RATE 200\n");
    constexpr size_t count = 60;
    for (size_t i = 0; i < count; ++i) {
      daemon.commit("vm/1/2/" + std::to_string(i), std::string(20'000, 'x'));
    }
    ASSERT_TRUE(daemon.start());
    s3_control control;
    s3_client store(place, control);
    ASSERT_TRUE(support::eventually([&] { return store.list("").objects.size() >= 10; }));
    if (is_restart) {
      ask(first, {"CONFIG", "SET", "save", "3600 1"});
      first.stop();
      first.start();
    } else {
      ask(first, {"WAIT", "1", "5000"});
      first.kill_hard();
      ask(second, {"REPLICAOF", "NO", "ONE"});
    }
    EXPECT_LT(store.list("").objects.size(), count) << "too late to see anything";
    EXPECT_EQ(daemon.run({"--drain", "50"}).status, 0) << daemon.run({"--status"}).out;
    EXPECT_EQ(store.list("").objects.size(), count);
    EXPECT_EQ(daemon.stop().status, 0);
  }
}

TEST(TransferService, KnowsDeletionsForLongerThanFilesStayInTheCache) {
  support::sandbox box{{.use_database = false}};
  support::transfer_daemon daemon(box, support::new_bucket(support::shared_object_store()));
  box.write_file("etc/quorvex/storage.conf",
                 box.read_file("etc/quorvex/storage.conf").value() + "STORAGE_CACHE_EXPIRE 240\n");
  for (const int days : {11, 13}) {
    box.redis({"ZADD", "storage:deleted:s3:main", std::to_string(qx_get_tstamp() - days * 86'400),
               "eu:o:" + std::to_string(days)});
  }
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(support::eventually([&] {
    return box.redis({"EVAL", "return redis.call('ZRANGE', KEYS[1], 0, 0)[1]", "1",
                      "storage:deleted:s3:main"}) == "eu:o:11";
  }));
}

}  // namespace
