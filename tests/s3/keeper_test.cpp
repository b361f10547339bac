// The keeper of the cache beside a real store, DisDB and file system.
#include <fcntl.h>
#include <sys/stat.h>

#include "tests/s3/uploads_fixture.h"
#include "transfer/keeper_look.h"
#include "transfer/receipt.h"

namespace {

constexpr const char *deletions = "storage:deleted:s3:main";

class Keeper : public testing::Test {
 protected:
  Keeper() {
    settings.cache = node.settings.cache;
    settings.transfer_in = world.folder.path() / "in";
    settings.transfer_out = world.folder.path() / "out";
    settings.config = node.settings.config;
    settings.config.default_location = "eu";
  }

  // A file of the cache that was last used so many hours ago.
  std::string make(const std::string &name, double hours, const std::string &content = "hello") {
    std::string key = "vm/1/2/" + name;
    write(node.path(key), hours, content);
    return key;
  }
  static void write(const std::string &path, double hours, const std::string &content = "") {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << content;
    used(path, hours);
  }
  static void used(const std::string &path, double hours) {
    const auto then = static_cast<time_t>(qx_get_tstamp() - hours * 3600);
    const timespec times[] = {{then, 0}, {then, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
  }
  s3_answer store(const std::string &key, const std::string &by = "n1",
                  const std::string &content = "hello") {
    s3_answer answer = world.client.put(key, support::stored_bytes(content).body(), {{"node", by}});
    EXPECT_TRUE(answer) << answer.text;
    return answer;
  }
  void give_receipt(const std::string &key, const s3_answer &put, bool is_fetched = false) const {
    const unique_fd file(::open(node.path(key).c_str(), O_RDONLY | O_CLOEXEC));
    const receipt what{.etag = put.etag, .length = 5, .is_fetched = is_fetched};
    EXPECT_EQ(write_receipt(file.get(), what), 0);
  }
  bool has_receipt(const std::string &key) const {
    return read_receipt(unique_fd(::open(node.path(key).c_str(), O_RDONLY | O_CLOEXEC)).get())
        .has_value();
  }
  void deleted(const std::string &key, double seconds_from_now) {
    world.redis(
        {"ZADD", deletions, std::to_string(qx_get_tstamp() + seconds_from_now), "eu:o:" + key});
  }
  keeper_report look() { return look_through(parts, settings, true).value(); }
  bool queued(const std::string &key) const { return world.is_queued(up_queue, node.member(key)); }

  transfer_world world;
  transfer_node node{world, "n1"};
  keeper_settings settings;
  const std::atomic<bool> stop{false};
  const keeper_parts parts{node.queue, node.locations, node.state, stop};
};

TEST_F(Keeper, ExpiryTakesOnlyUnusedFilesThatTheStoreHas) {
  const std::string stored = make("stored", 49), known = make("known", 49),
                    deleted_since = make("deleted", 49), again = make("again", 49),
                    opened = make("opened", 49), other = make("other", 49), lost = make("lost", 49),
                    recent = make("recent", 1);
  for (const std::string &key : {stored, again, opened, recent}) store(key);
  give_receipt(known, store(known));
  store(other, "n2", "HELLO");
  give_receipt(lost, world.client.head(known), true);
  deleted(deleted_since, 10);
  world.queue(up_queue, node.member(again));
  const unique_fd reader(::open(node.path(opened).c_str(), O_RDONLY | O_CLOEXEC));

  const keeper_report report = look();
  for (const std::string &key : {stored, known, deleted_since}) {
    EXPECT_FALSE(node.has_file(key)) << key;
  }
  for (const std::string &key : {again, opened, other, lost, recent}) {
    EXPECT_TRUE(node.has_file(key)) << key;
  }
  EXPECT_EQ(report.cached_files, 5);
  EXPECT_EQ(report.cached_bytes, 25);
  EXPECT_EQ(report.not_in_store, 1);
  EXPECT_EQ(node.state.counters.evicted, 3);
  EXPECT_TRUE(has_receipt(recent));
}

TEST_F(Keeper, WhatTheQueueLostIsQueuedAgainAndWhatWasDeletedIsNot) {
  const std::string lost = make("lost", 1), newer = make("newer", 1), young = make("young", 0),
                    gone = make("gone", 1), deleted_before = make("before", 1),
                    known = make("known", 1), replaced = make("replaced", 49),
                    stored_once = make("once", 49), long_ago = make("long ago", 8 * 24),
                    fetched = make("fetched", 49);
  store(newer, "n1", "older");
  give_receipt(known, store(known));
  for (const std::string &key : {replaced, stored_once, long_ago}) {
    give_receipt(key, world.client.head(known));
  }
  give_receipt(fetched, world.client.head(known), true);
  world.client.put(replaced, support::stored_bytes("late").body(),
                   {{"node", "n1"}, {"queued", "1"}});
  deleted(known, 10);
  deleted(gone, 10);
  deleted(deleted_before, -10);
  deleted(fetched, -10);
  look();
  for (const std::string &key : {gone, known, fetched}) EXPECT_FALSE(node.has_file(key)) << key;
  for (const std::string &key : {lost, newer, deleted_before, replaced, stored_once}) {
    EXPECT_TRUE(queued(key)) << key;
  }
  for (const std::string &key : {young, long_ago}) EXPECT_FALSE(queued(key)) << key;
  EXPECT_TRUE(node.has_file(long_ago)) << "whether it was deleted is not known any more";
  EXPECT_EQ(node.state.counters.queued_again, 5);
  settings.upload_interval = 0;
  used(node.path(young), -1);
  EXPECT_TRUE(look().is_whole);
  EXPECT_TRUE(queued(young)) << "however lately it was used";
  node.start();
  EXPECT_TRUE(eventually([&] { return world.queued() == "0 0"; }));
  EXPECT_EQ(world.object(lost), "hello");
  EXPECT_EQ(world.object(newer), "hello");
  EXPECT_EQ(world.object(replaced), "hello");
  EXPECT_EQ(world.object(gone), std::nullopt);
}

TEST_F(Keeper, NothingGoesWhileTheStoreOrTheDisDbDoesNotAnswer) {
  const std::string key = make("stored", 49);
  store(key);
  const std::atomic<bool> stopped{true};
  EXPECT_FALSE(look_through({node.queue, node.locations, node.state, stopped}, settings, true));
  EXPECT_FALSE(queued(key)) << "a file that was not read to its end is no other file";
  transfer_config away = settings.config;
  away.locations.front().endpoint = "http://127.0.0.1:1";
  EXPECT_EQ(node.locations.configure(away), "");
  look();
  EXPECT_TRUE(node.has_file(key));
  EXPECT_EQ(node.locations.configure(settings.config), "");
  world.server.pause();
  EXPECT_FALSE(look().is_whole);
  world.server.resume();
  EXPECT_TRUE(node.has_file(key));
}

TEST_F(Keeper, RoomIsMadeFromTheLongestUnused) {
  for (int i = 0; i < 6; ++i) store(make(std::to_string(i), 20 - i));
  world.queue(up_queue, node.member("vm/1/2/0"));
  settings.cache_size = 20;
  const room_report room = make_room(parts, settings, 0);
  EXPECT_EQ(room.wanted, 11);
  EXPECT_EQ(room.freed, 15);
  EXPECT_EQ(room.left, 15);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(node.has_file("vm/1/2/" + std::to_string(i)), i == 0 || i > 3) << i;
  }
  // The thread does it on its own when the disk has too little room.
  settings.cache_free = 100;
  for (int i = 4; i < 6; ++i) used(node.path("vm/1/2/" + std::to_string(i)), 1);
  cache_keeper keeper{node.queue, node.locations, node.state};
  keeper.start(settings);
  keeper.inserted();
  EXPECT_TRUE(eventually([&] { return !node.has_file("vm/1/2/5"); }));
  keeper.reconfigure(settings);
  EXPECT_TRUE(eventually([&] { return keeper.report().cached_files == 1; }));
}

TEST_F(Keeper, LeftoversGoWhenTheyAreOldAndOpenNowhere) {
  // What is cached lies deeper than leftovers.
  settings.transfer_out = settings.cache;
  const std::string in = settings.transfer_in, out = settings.transfer_out + "/main",
                    cache = settings.cache + "/main/vm/1/";
  const std::string gone[] = {in + "/old", out + "/old.wav", cache + "2/.storing-a",
                              cache + "2/.parts-gone"};
  const std::string kept[] = {in + "/young", in + "/open", cache + "2/.parts-3", cache + "2/3"};
  for (const std::string &path : gone) write(path, 2);
  for (const std::string &path : kept) write(path, 2);
  used(kept[0], 0.5);
  const unique_fd writer(::open(kept[1].c_str(), O_WRONLY | O_CLOEXEC));
  for (const char *folder : {"empty", "new"}) std::filesystem::create_directory(cache + folder);
  used(cache + "empty", 2);
  look();
  for (const std::string &path : gone) EXPECT_FALSE(std::filesystem::exists(path)) << path;
  for (const std::string &path : kept) EXPECT_TRUE(std::filesystem::exists(path)) << path;
  EXPECT_FALSE(std::filesystem::exists(cache + "empty"));
  EXPECT_TRUE(std::filesystem::exists(cache + "new"));
  EXPECT_EQ(node.state.counters.swept, 4);
  // A file whose name was taken by one that may be older stays under its other name.
  write(cache + "2/.removing-3", 0);
  const unique_fd folder(::open((cache + "2").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  put_back(folder.get(), ".removing-3");
  EXPECT_TRUE(std::filesystem::exists(cache + "2/.removing-3"));
}

}  // namespace
