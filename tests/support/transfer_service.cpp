#include "tests/support/transfer_service.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace support {

namespace fs = std::filesystem;

static std::string spelled(const char *text) {
  return text == nullptr ? "-" : text;
}

transfer_service::transfer_service(const sandbox &box) : box_(box) {
  qx_storage_api_t api{};
  api.context = this;
  api.s3_usable = [](void *context) -> int {
    return static_cast<transfer_service *>(context)->usable ? 1 : 0;
  };
  api.location = [](void *context, const qx_storage_location_query_t *query) {
    auto *self = static_cast<transfer_service *>(context);
    std::ostringstream text;
    text << query->resource_type << " " << query->first_id << " " << query->second_id << " "
         << spelled(query->first_text) << " " << spelled(query->second_text);
    const std::lock_guard lock(self->mutex_);
    self->last_asked_ = text.str();
    return self->location ? ::strdup(self->location->c_str()) : nullptr;
  };
  api.download = [](void *context, const char *stored_name, const char *shard, const char *engine,
                    const char *extra, const char *path, qx_storage_done_fn done,
                    void *cookie) -> void * {
    auto *self = static_cast<transfer_service *>(context);
    const outcome how = self->result;
    const moment chosen = self->when;
    std::unique_lock lock(self->mutex_);
    self->last_asked_ =
        std::string(stored_name) + " " + shard + " " + engine + " " + spelled(extra);
    if (how == outcome::refused) return nullptr;
    request &one =
        self->requests_.emplace_back(request{self->object(stored_name), path, done, cookie});
    const auto work = [self, &one, how, chosen] {
      self->complete(one, how, chosen == moment::held);
    };
    if (chosen != moment::at_once) {
      self->threads_.emplace_back(work);
    } else {
      lock.unlock();
      work();
    }
    return &one;
  };
  api.release = [](void *context, void *released) {
    auto *self = static_cast<transfer_service *>(context);
    const std::lock_guard lock(self->mutex_);
    auto *one = static_cast<request *>(released);
    EXPECT_TRUE(one->completed) << "released too early: " << one->object;
    ++one->released;
  };
  api.queued = [](void *context) {
    auto *self = static_cast<transfer_service *>(context);
    ++self->told;
    self->when_told();
  };
  EXPECT_EQ(qx_storage_register_api(&api), 0);
}

transfer_service::~transfer_service() {
  qx_storage_unregister_api();
  let_go();
  for (std::thread &one : threads_) one.join();
  for (const request &one : requests_) EXPECT_EQ(one.released, 1) << one.object;
}

void transfer_service::let_go() {
  if (gone_on_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) let_go_.set_value();
}

std::string transfer_service::last_asked() const {
  const std::lock_guard lock(mutex_);
  return last_asked_;
}

void transfer_service::complete(request &one, outcome how, bool held) {
  constexpr int arrived = 3, not_had = 7;
  bool whole = false;
  if (how != outcome::failed) {
    std::ifstream source(one.object, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(source), {}};
    EXPECT_TRUE(fs::is_empty(one.path)) << "the target exists and is empty";
    std::ofstream target(one.path, std::ios::binary);
    target << content.substr(0, content.size() / 2) << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(slowness));
    if (how == outcome::whole) target << content.substr(content.size() / 2) << std::flush;
    whole = how == outcome::whole && source.is_open() && target.good();
  }
  if (held) gone_on_.wait();
  {
    const std::lock_guard lock(mutex_);
    one.completed = true;
  }
  one.done(one.cookie, whole ? arrived : not_had, one.path.c_str());
}

int transfer_service::work_off() {
  // What is queued again while it is worked on stays, as it was taken before.
  const auto next = [this](const std::string &kind) {
    return box_.redis({"EVAL", "return redis.call('ZPOPMIN', KEYS[1])[1]", "1",
                       "storage:" + kind + "queue:s3:main"});
  };
  int worked = 0;
  for (; const auto member = next("up"); ++worked) {
    const std::string key = member->substr(member->rfind(':') + 1);
    fs::create_directories(fs::path(object(key)).parent_path());
    fs::copy_file(box_.path("usr/local/quorvex/scache/main/" + key), object(key),
                  fs::copy_options::overwrite_existing);
  }
  for (; const auto member = next("del"); ++worked) {
    const std::size_t colon = member->rfind(':');
    const fs::path deleted = object(member->substr(colon + 1));
    member->at(colon - 1) == 'r' ? fs::remove_all(deleted) : fs::remove(deleted);
  }
  return worked;
}

}  // namespace support
