// Transfer services of several nodes in this process: each with a cache of its own, all with one
// DisDB and one bucket of a real store.
#ifndef TESTS_S3_UPLOADS_FIXTURE_H
#define TESTS_S3_UPLOADS_FIXTURE_H

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include <spoolcap/zarn_str.h>
#include "tests/support/log_capture.h"
#include "tests/support/object_store.h"
#include "tests/unit/velkan_fixture.h"
#include "transfer/uploads.h"

using namespace std::chrono_literals;
using support::eventually;

inline constexpr const char *up_queue = "storage:upqueue:s3:main";
inline constexpr const char *delete_queue = "storage:delqueue:s3:main";

// What the services of one test share.
struct transfer_world {
  explicit transfer_world(const std::string &endpoint = support::shared_object_store())
      : place(support::new_bucket(endpoint)) {
    vk_set_patient(direct.handle());
  }

  std::string redis(std::initializer_list<std::string_view> words) const {
    vk_reply reply;
    EXPECT_EQ(vk_run(direct.handle(), std::vector<std::string_view>(words), reply), VK_OK);
    if (!reply || reply->type == REDIS_REPLY_NIL) return "";
    if (reply->type == REDIS_REPLY_INTEGER) return std::to_string(reply->integer);
    return reply->str == nullptr ? "" : std::string(reply->str, reply->len);
  }
  void queue(const char *which, const std::string &member, double at = qx_get_tstamp()) const {
    redis({"ZADD", which, std::to_string(at), member});
  }
  bool is_queued(const char *which, const std::string &member) const {
    return !redis({"ZSCORE", which, member}).empty();
  }
  std::string queued() const {
    return redis({"ZCARD", up_queue}) + " " + redis({"ZCARD", delete_queue});
  }
  // The content of an object, nothing when there is none.
  std::optional<std::string> object(const std::string &key) {
    const support::stored_bytes target("");
    const s3_answer answer = client.get(key, target.body().fd);
    if (answer.outcome == s3_outcome::not_found) return std::nullopt;
    EXPECT_TRUE(answer) << answer.text;
    return support::content_of(target.body().fd);
  }

  support::redis_server server;
  const cache_client direct{{server.socket()}};
  s3_place place;
  s3_control control;
  s3_client client{place, control};
  support::private_folder folder{"transfer"};
};

// One node and its service.
class transfer_node {
 public:
  transfer_node(transfer_world &world, const std::string &name)
      : world_(world), name_(name), queue(cache_client({world.server.socket()}).release(), name) {
    settings.cache = world.folder.path() / name;
    settings.unclear_window = 2;
    transfer_config &config = settings.config;
    config.node = name;
    config.uploads = 4;
    config.multipart_from = 6 << 20;
    config.part_size = 5 << 20;
    config.credentials_file = world.folder.path() / "keys";
    config.locations = {{.name = "eu",
                         .endpoint = world.place.endpoint,
                         .region = world.place.region,
                         .bucket = world.place.bucket}};
    const s3_credentials &keys = world.place.credentials;
    std::ofstream(config.credentials_file)
        << "# keys\n[eu]\naws_access_key_id = " << keys.access_key
        << "\naws_secret_access_key=" << keys.secret_key << "\n";
    std::filesystem::permissions(config.credentials_file, std::filesystem::perms::owner_read);
    EXPECT_EQ(locations.configure(config), "");
  }
  ~transfer_node() { stop(); }

  void move_to(const std::string &endpoint) {
    settings.config.locations[0].endpoint = endpoint;
    EXPECT_EQ(locations.configure(settings.config), "");
  }
  void start() { workers.start(settings); }
  void stop() {
    control.stop = true;
    workers.stop();
  }

  std::string path(const std::string &key) const { return settings.cache + "/main/" + key; }
  std::string member(const std::string &key) const { return "eu@" + name_ + ":" + key; }
  // As a host stores a file: complete under its name, then queued.
  void commit(const std::string &key, const std::string &content, double at = qx_get_tstamp()) {
    std::filesystem::create_directories(std::filesystem::path(path(key)).parent_path());
    const std::string beside = path(key) + ".storing";
    std::ofstream(beside, std::ios::binary) << content;
    std::filesystem::rename(beside, path(key));
    world_.queue(up_queue, member(key), at);
    workers.wake();
  }
  void remove(const std::string &what, double at = qx_get_tstamp()) {
    world_.queue(delete_queue, "eu@" + name_ + ":" + what, at);
    workers.wake();
  }
  bool is_idle() {
    const auto queued = queue.summary();
    return queued && workers.idle(*queued);
  }
  bool has_file(const std::string &key) const { return std::filesystem::exists(path(key)); }

 private:
  transfer_world &world_;
  std::string name_;

 public:
  worker_settings settings;
  s3_control control;
  transfer_state state;
  transfer_locations locations{control};
  transfer_queue queue;
  transfer_workers workers{queue, locations, state, control};
};

#endif
