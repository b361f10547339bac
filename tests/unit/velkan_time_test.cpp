// What a cache in trouble may cost in time: waiting for commands, for the resolver, for addresses.
#include <sys/socket.h>

#include <deque>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/velkan/group.h"
#include "tests/unit/velkan_fixture.h"

using namespace std::chrono_literals;
using support::redis_server;
using support::seconds_of;
using duration = vk_budget::duration;

namespace {

// Leaves so much of the budget, as commands that were slow would.
void leave_of_budget(duration left) {
  const auto now = vk_clock::now();
  the_vk_budget.charge(now - (the_vk_budget.left(now) - left), now);
}

TEST(VelkanTime, InAnyTenMinutesCommandsTakeFiveSecondsAndHalfAMillisecondForEach) {
  const struct {
    const char *name;
    duration answers_after, next_comes_after;
    double least_taken;  // in the worst ten minutes, in seconds
  } rows[] = {{"hangs", 2s, 5s, 4.5},
              {"hangs now and then", 2s, 6min, 1.9},
              {"is slow", 150ms, 10us, 4.5},
              {"is a little slow", 1ms, 10us, 4.5},
              {"is healthy", 200us, 10us, 0}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    vk_budget budget;
    vk_clock::time_point now{1h};
    struct command {
      vk_clock::time_point start;
      duration slow_part;
    };
    std::deque<command> in_ten_minutes;
    duration taken{}, most_taken{};
    bool was_down = false;
    while (now < vk_clock::time_point(1h + 31min)) {
      const duration took = std::min(row.answers_after, budget.left(now));
      was_down |= took == 0s;
      if (took > 0s) {
        budget.charge(now, now + took);
        in_ten_minutes.push_back({now, took - 500us});
        taken += took - 500us;
      }
      now += took + (took == 0s ? 100ms : row.next_comes_after);
      for (; in_ten_minutes.front().start < now - 10min; in_ten_minutes.pop_front()) {
        taken -= in_ten_minutes.front().slow_part;
      }
      most_taken = std::max(most_taken, taken);
      if (row.answers_after < 500us && in_ten_minutes.size() == 1'000'000) break;
    }
    EXPECT_LE(most_taken, 5s);
    EXPECT_GE(std::chrono::duration<double>(most_taken).count(), row.least_taken);
    EXPECT_TRUE(!was_down || row.answers_after > 500us);
  }
}

TEST(VelkanTime, ALongLookUpIsForgivenAfterTenMinutesAndAStallAmongFastAnswersAtOnce) {
  vk_budget budget;
  const vk_clock::time_point start{1h}, end = start + 60s;
  budget.charge(start, end);
  EXPECT_EQ(budget.left(end + 10min), 0s);
  EXPECT_GT(budget.left(end + 10min + 6s), 0s);

  const auto later = end + 1h;
  budget.charge(later, later + 4ms);
  EXPECT_LT(budget.left(later + 5ms), 2500ms);
  for (int i = 0; i < 10; i++) budget.charge(later + 4ms, later + 4ms + 50us);
  EXPECT_EQ(budget.left(later + 5ms), 2500ms);
}

TEST(VelkanTime, AServerThatHangsCostsWhatIsLeftAndIsFoundAgainAfterThePause) {
  redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  leave_of_budget(300ms);
  server.pause();
  const double spent = seconds_of([&] { EXPECT_EQ(client.get("h", "f"), VK_ERR_IO); });
  EXPECT_GE(spent, 0.2);
  EXPECT_LT(spent, 1.9) << "without the budget it is 2 s";
  server.resume();
  const cache_client other({server.socket()});
  EXPECT_EQ(other.get("h", "f"), VK_ERR_DOWN) << "all clients of a process have one budget";
  leave_of_budget(2s);
  EXPECT_EQ(client.get("h", "f"), VK_ERR_DOWN);
  EXPECT_TRUE(support::eventually([&] { return client.get("h", "f") == VK_OK; }, 10s));
}

TEST(VelkanTime, APatientClientHasNoBudgetAndAsksAgainAfterHalfASecond) {
  redis_server server;
  const cache_client client({server.socket()});
  ASSERT_EQ(vk_set_patient(client.handle()), VK_OK);
  leave_of_budget(0ms);
  ASSERT_EQ(client.set("h", "f", "v"), VK_OK);
  server.pause();
  const double spent = seconds_of([&] {
    EXPECT_EQ(client.get("h", "f"), VK_ERR_IO);
    server.resume();
    EXPECT_TRUE(support::eventually([&] { return client.get("h", "f") == VK_OK; }));
  });
  EXPECT_GE(spent, 2.4) << "2 s and a pause";
  EXPECT_LT(spent, 6.9) << "the pause of others is 5 s";
}

TEST(VelkanTime, ANameIsLookedUpAgainOnlyWhenItsAddressesDoNotServe) {
  const support::private_folder folder("hosts");
  const std::string hosts = folder.path() / "hosts";
  auto written = std::filesystem::file_time_type::clock::now();
  const auto name_is_at = [&](const char *address) {
    std::ofstream(hosts) << address << " cache.test\n";
    std::filesystem::last_write_time(hosts, written += 1s);  // by which the change is noticed
  };
  setenv("NSS_WRAPPER_HOSTS", hosts.c_str(), 1);
  const redis_server server({.tcp = true});
  const cache_client client({});
  name_is_at("127.0.0.2");
  ASSERT_EQ(client.add("cache.test", server.port()), VK_OK);
  EXPECT_EQ(client.get("h", "f"), VK_ERR_DOWN);

  name_is_at("127.0.0.1");
  EXPECT_TRUE(support::eventually([&] { return client.get("h", "f") == VK_OK; }));

  name_is_at("127.0.0.2");
  ask(server, {"CLIENT", "KILL", "TYPE", "normal"});
  EXPECT_EQ(client.get("h", "f"), VK_OK) << "the address served, and was looked up again";
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
  auto connection = vk_connection::open(addresses, in(4s));
  ASSERT_TRUE(connection);

  // An answer that comes too late is none: a peer must not prolong a command without end.
  bool waited = false;
  ASSERT_EQ(connection->send_all("PING\r\n", in(1s), waited), vk_io::ok);
  std::this_thread::sleep_for(100ms);
  vk_reply reply;
  EXPECT_EQ(connection->receive(in(0s), false, reply), vk_io::timed_out);
}

}  // namespace
