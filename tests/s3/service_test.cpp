// The transfer service as a process, beside a real store.
#include <gtest/gtest.h>

#include "tests/support/object_store.h"
#include "tests/support/transfer_daemon.h"

namespace {

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(TransferService, UploadsTellsItsStateAndTakesUpWhereItWasKilled) {
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
  EXPECT_TRUE(has(daemon.run({"--status", "--json"}).out, R"("idle":false,"queue":{"reachable":)"
                                                          R"(true,"dangerous_policy":"",)"
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

}  // namespace
