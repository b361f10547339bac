// What a cache in trouble may cost in time: waiting for commands, for the resolver, for addresses.
#include <sys/socket.h>

#include <utility>

#include "velkan/group.h"
#include "velkan_fixture.h"

using namespace std::chrono_literals;
using support::redis_server;
using support::seconds_of;

TEST(VelkanTime, AServerThatAnswersOnlyReadsKeepsToTheShortTimes) {
  const redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  ask(server, {"CLIENT", "PAUSE", "30000", "WRITE"});
  EXPECT_NEAR(seconds_of([&] { EXPECT_EQ(client.set("h", "f", "w"), VK_ERR_IO); }), 2.0, 0.2);
  vk_state &state = *client.handle()->state;
  for (int failures = 1; failures < 4; failures++) {
    state.paused_until = vk_clock::now();
    EXPECT_EQ(client.get("h", "f"), VK_OK) << "what answers in time works";
    EXPECT_NEAR(seconds_of([&] { EXPECT_EQ(client.set("h", "f", "w"), VK_ERR_IO); }), 0.2, 0.1);
    const std::chrono::duration<double> pause = state.paused_until - vk_clock::now();
    EXPECT_NEAR(pause.count(), 1 << failures, 0.4);
  }
  for (const auto healthy : {59s, 60s}) {
    state.paused_until = vk_clock::now() - healthy;
    EXPECT_EQ(client.get("h", "f"), VK_OK);
    EXPECT_EQ(state.failures == 0, healthy == 60s) << "trusted as before after a healthy minute";
  }
}

TEST(VelkanTime, ANameIsLookedUpAgainOnlyWhenItsAddressesFailAndAMinuteHasPassed) {
  const redis_server server({.tcp = true});
  const cache_client client({});
  ASSERT_EQ(client.add("localhost", server.port()), VK_OK);
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  vk_state &state = *client.handle()->state;
  vk_server &known = state.servers[0];
  const auto reconnect = [&] {
    state.connection.reset();
    state.paused_until = {};
    return client.get("h", "f");
  };
  const auto right = std::exchange(known.host, "no.such.name.invalid");
  known.next_look_up = {};
  EXPECT_EQ(reconnect(), VK_OK) << "a name that served was looked up again";

  // It moved: the addresses are those of somebody else.
  known.host = right;
  known.addresses = addresses_of("127.0.0.1", 1);
  known.next_look_up = vk_clock::now() + 60s;
  for (int i = 0; i < 2; i++) EXPECT_EQ(reconnect(), VK_ERR_DOWN) << "it was looked up too early";
  known.next_look_up = {};
  EXPECT_EQ(reconnect(), VK_OK);
}

TEST(VelkanTime, AnAddressThatHangsDoesNotHideTheNextOneOfItsName) {
  const redis_server server({.tcp = true});
  // A listener whose queue is full answers no further connect.
  int port = 0;
  const unique_fd listener = support::bound_to_loopback(port);
  ASSERT_EQ(listen(listener.get(), 0), 0);
  auto addresses = addresses_of("127.0.0.1", port);
  const auto in = [](auto time) { return vk_clock::now() + time; };
  std::vector<vk_connection> queue;
  while (auto connection = vk_connection::open(addresses, in(50ms))) {
    queue.push_back(std::move(*connection));
  }
  addresses.push_back(addresses_of("127.0.0.1", server.port())[0]);
  EXPECT_TRUE(vk_connection::open(addresses, in(200ms)));
}
