// Downloads against a real store and a real DisDB.
#include <future>

#include "tests/s3/uploads_fixture.h"
#include "tests/support/scripted_server.h"
#include "transfer/downloads.h"
#include "transfer/receipt.h"

namespace {

constexpr const char *key = "vm/1/2/3.wav";

class Downloads : public testing::Test {
 protected:
  // An order, and what comes of it.
  struct ordered {
    support::stored_bytes target{""};
    std::future<bool> end;
    std::string content() const { return support::content_of(target.body().fd); }
  };
  std::unique_ptr<ordered> order(const std::string &what, const std::string &where = "eu@n1") {
    auto made = std::make_unique<ordered>();
    auto end = std::make_shared<std::promise<bool>>();
    made->end = end->get_future();
    downloads.order({.location_text = where,
                     .key = what,
                     .target = unique_fd(::fcntl(made->target.body().fd, F_DUPFD_CLOEXEC, 0)),
                     .done = [end](bool is_done) { end->set_value(is_done); }});
    return made;
  }
  void put(const std::string &content) {
    EXPECT_TRUE(world.client.put(key, support::stored_bytes(content).body()));
  }

  support::log_capture log;
  transfer_world world;
  transfer_node node{world, "n1"};
  transfer_downloads downloads{node.queue, node.locations, node.state, node.control};
};

TEST_F(Downloads, OneTransferServesAllOrdersOfTheObject) {
  const std::string content(2'000'000, 'x');
  put(content);
  std::vector<std::unique_ptr<ordered>> orders(20);
  downloads.start(0, 0);  // no thread runs before all have ordered
  for (auto &one : orders) one = order(key);
  downloads.start(4, 0);
  for (const auto &one : orders) {
    ASSERT_TRUE(one->end.get());
    EXPECT_TRUE(one->content() == content);
    const auto noted = read_receipt(one->target.body().fd);
    EXPECT_EQ(noted ? noted->length : -1, std::ssize(content));
  }
  EXPECT_EQ(node.control.received, content.size());
  EXPECT_EQ(node.state.counters.downloads, orders.size());
}

TEST_F(Downloads, ADownloadWaitsForTheQueuedUploadOfItsObject) {
  downloads.start(1, 30);
  world.queue(up_queue, "eu@n2:" + std::string(key));
  const auto waiting = order(key, "eu@n2");
  put("here");
  const auto other = order(key);
  EXPECT_TRUE(other->end.get()) << "who waits is in nobody's way";
  ASSERT_TRUE(waiting->end.get());
  EXPECT_EQ(waiting->content(), "here");
}

TEST_F(Downloads, WhatCannotBeHadFails) {
  downloads.start(2, 1);
  world.queue(up_queue, "eu@n1:never");
  const std::pair<const char *, const char *> cases[] = {
      {key, "eu@n1"}, {"never", "eu@n1"}, {key, "us@n1"}, {"../a", "eu@n1"}, {"", ""}};
  for (const auto &[name, where] : cases) EXPECT_FALSE(order(name, where)->end.get()) << name;
  EXPECT_TRUE(log.has("cannot fetch eu@n1:vm/1/2/3.wav: the store does not have it"));
  EXPECT_TRUE(log.has("cannot fetch eu@n1:never: its upload is still queued"));
  EXPECT_TRUE(log.has("cannot fetch us@n1:vm/1/2/3.wav: the location is not configured"));
}

TEST_F(Downloads, StoppingEndsWhatRunsAndWhatWaits) {
  put(std::string(5'000'000, 'x'));
  world.queue(up_queue, "eu@n1:never");
  node.control.bytes_per_second = 100'000;
  downloads.start(1, 60);
  const auto running = order(key), waiting = order("never"), behind = order("other");
  ASSERT_TRUE(eventually([&] { return node.control.received > 0; }));
  const double start = qx_get_tstamp();
  node.stop();
  downloads.stop();
  EXPECT_LT(qx_get_tstamp() - start, 30);
  for (const auto *one : {&running, &waiting, &behind}) EXPECT_FALSE((*one)->end.get());
  EXPECT_FALSE(order(key)->end.get());
}

TEST_F(Downloads, ABrokenTransferGoesOnWhereItWas) {
  const std::string etag = "fc5e038d38a57032085441e7fe7010b0";  // of the whole
  const support::scripted_server store(
      [&](std::string_view request) {
        const auto has = [&](const std::string &text) {
          return request.find(text) != request.npos;
        };
        const std::string head = "ETag: \"" + etag + "\"\r\nContent-Length: ";
        if (!has("range: bytes=")) return "HTTP/1.1 200 OK\r\n" + head + "10\r\n\r\nhello";
        EXPECT_TRUE(has("range: bytes=5-\r\n") && has("if-match: \"" + etag + "\"\r\n")) << request;
        return "HTTP/1.1 206 Rest\r\n" + head + "5\r\nContent-Range: bytes 5-9/10\r\n\r\nworld";
      },
      support::scripted_server::then::closes);
  node.settings.config.locations[0].endpoint = store.endpoint();
  ASSERT_EQ(node.locations.configure(node.settings.config), "");
  downloads.start(1, 0);
  const auto one = order(key);
  ASSERT_TRUE(one->end.get());
  EXPECT_EQ(one->content(), "helloworld");
  EXPECT_EQ(store.connections(), 2);
}

}  // namespace
