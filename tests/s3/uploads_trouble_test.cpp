// Uploads while the store and the DisDB come and go.
#include "tests/s3/uploads_fixture.h"

namespace {

TEST(UploadsInTrouble, NothingIsLostWhenTheDisDbAndTheStoreStopAndStart) {
  support::log_capture log;
  support::object_store store;
  transfer_world world(store.endpoint());
  transfer_node node(world, "n1");
  node.start();
  const auto commit = [&](int from) {
    for (int i = from; i < from + 30; ++i) {
      node.commit("vm/1/2/" + std::to_string(i) + ".wav", std::string(5000, 'x'));
    }
  };
  commit(0);
  store.stop();
  commit(30);
  log.expect(FR_LOG_WARNING, "location eu is resting");
  ASSERT_TRUE(eventually([&] { return node.locations.report()[0].state == "resting"; }));
  world.server.pause();
  std::this_thread::sleep_for(3s);
  world.server.resume();
  store.start();
  std::this_thread::sleep_for(1s);
  commit(60);
  ASSERT_TRUE(eventually([&] { return world.queued() == "0 0"; }, 60s)) << world.queued();
  EXPECT_EQ(world.client.list("vm/").objects.size(), 90U);
  EXPECT_EQ(node.locations.report()[0].state, "up");
}

}  // namespace
