// Hosts store, delete and fetch while they and the transfer service are killed at random moments.
// Ten kills, or SPOOLCAP_KILLS of them; SPOOLCAP_SEED repeats what they draw.
#include <spoolcap/transfer.h>
#include <sys/mman.h>

#include <atomic>
#include <random>

#include "tests/support/object_store.h"
#include "tests/support/transfer_daemon.h"
#include "tests/unit/storage_fixture.h"
#include "transfer/receipt.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int hosts = 3, files_of_each = 20, first_id = 100;
constexpr int longest = 40'000, in_parts = 7 << 20;

unsigned from_environment(const char *name, unsigned otherwise) {
  const char *text = std::getenv(name);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

std::string key_of(int id) {
  return "rc/1/2/" + std::to_string(id) + ".wav";
}

// No two are alike; some take several parts.
std::string content(int id, int version) {
  std::mt19937 draw(static_cast<unsigned>(id * 100'003 + version));
  std::string text(version % 50 == 7 ? in_parts : draw() % longest, '\0');
  for (size_t i = 0; i < text.size(); i += 1 + i / 100) text[i] = static_cast<char>(draw());
  return std::to_string(id) + " " + std::to_string(version) + text;
}

// What outlives a host that is killed: 0 means deleted. What was begun and not done is begun again
// by the host that follows.
struct file_state {
  int begun, done;
};
struct shared_state {
  std::atomic<bool> stop;
  std::atomic<int> downloads, wrong;
  int versions;  // of one host
  file_state files[files_of_each];
};

class Kills : public storage_test {
 protected:
  Kills() : storage_test("s3") {
    EXPECT_EQ(qx_storage_load_config(base.c_str(), nullptr), 0);
    EXPECT_EQ(qx_transfer_start(), 0);
    box.sql("INSERT INTO extension_recording (id, extension_id) SELECT seq, 1 FROM seq_100_to_159");
    std::fprintf(stderr, "SPOOLCAP_SEED=%u\n", seed);
  }
  ~Kills() override {
    qx_transfer_stop();
    ::munmap(states, hosts * sizeof *states);
  }

  static int id_of(int host, int file) { return first_id + host * files_of_each + file; }

  bool is_queued(const std::string &key) const {
    const vk_context own(redisConnectUnix(support::shared_servers().redis_socket.c_str()));
    own_reply(
        static_cast<redisReply *>(redisCommand(own.get(), "SELECT %d", box.cache_database())));
    const vk_reply reply = own_reply(static_cast<redisReply *>(
        redisCommand(own.get(), "ZSCORE storage:upqueue:s3:main %s", ("eu@n1:" + key).c_str())));
    return !reply || reply->type != REDIS_REPLY_NIL;
  }

  // As the cache would, once the store has the file.
  void evict(const std::string &key) const {
    const std::string path = box.path(daemon.cached(key));
    const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file && read_receipt(file.get()) && !is_queued(key)) ::unlink(path.c_str());
  }

  void work_on(shared_state &all, int host, int number, unsigned choice) const {
    file_state &file = all.files[number];
    const int id = id_of(host, number);
    const std::string key = key_of(id);
    if (file.begun == file.done && file.done != 0 && choice % 4 < 2) {
      evict(key);
      const storage_session one(
          qx_storage_session_retrieve(QX_STORAGE_RECORDING, key.c_str(), "s3", "eu@n1"));
      if (!one || qx_storage_wait_for_file(one.get()) != QX_STORAGE_READY) return;
      ++all.downloads;
      all.wrong +=
          box.read_file(fs::relative(qx_storage_get_file_path(one.get()), box.root()).string()) !=
          content(id, file.done);
      return;
    }
    if (file.begun == file.done) {
      file.begun = file.done != 0 && choice % 4 == 2 ? 0 : ++all.versions;
    }
    const bool is_done =
        file.begun == 0 ? qx_storage_delete(QX_STORAGE_RECORDING, key.c_str(), "s3", "eu@n1") == 0
                        : stored(QX_STORAGE_RECORDING, id, content(id, file.begun)) == 0;
    if (is_done) file.done = file.begun;
  }

  bool be_host(int host, unsigned from) const {
    std::mt19937 own(from);
    shared_state &all = states[host];
    while (!all.stop) {
      const auto number = static_cast<int>(own() % files_of_each);
      work_on(all, host, number, static_cast<unsigned>(own()));
      std::this_thread::sleep_for(std::chrono::milliseconds(own() % 20));
    }
    for (int i = 0; i < files_of_each; ++i) {
      while (all.files[i].begun != all.files[i].done) work_on(all, host, i, 0);
    }
    return true;
  }

  void start_host(int host) {
    running[host] = std::make_unique<support::background_process>(
        [this, host, from = static_cast<unsigned>(draw())] { return be_host(host, from); });
  }

  void kill_one() {
    std::this_thread::sleep_for(std::chrono::milliseconds(draw() % 200));
    const auto which = static_cast<int>(draw() % (2 * hosts));
    if (which < hosts) {
      running[which]->kill(SIGKILL);
      running[which]->wait(10s);
      start_host(which);
    } else {
      daemon.stop(SIGKILL);
      ASSERT_TRUE(daemon.start());
    }
  }

  // The hour passes. After it, no upload with an unknown end can take effect, and no leftover in
  // the folders belongs to a process that runs.
  void let_the_window_pass() {
    EXPECT_EQ(daemon.stop().status, 0);
    box.redis({"DEL", "storage:unclear:s3:main"});
    box.redis({"EVAL",
               "for _, one in ipairs(redis.call('KEYS', 'storage:claim:*')) do "
               "redis.call('DEL', one) end",
               "0"});
    for (const char *folder : {"cache", "in", "out"}) {
      for (const std::string &name : files(folder)) {
        const fs::path path = box.path(std::string(folder) + "/" + name);
        if (folder != std::string("cache") || path.filename().string().starts_with('.')) {
          fs::last_write_time(path, fs::file_time_type::clock::now() - 2h);
        }
      }
    }
    ASSERT_TRUE(daemon.start());
    EXPECT_EQ(daemon.run({"--drain", "50"}).status, 0) << daemon.run({"--status"}).out;
    daemon.process().kill(SIGHUP);  // everything is looked through
  }

  // The keys of what the hosts have stored and not deleted.
  texts expect_right_objects() {
    s3_control control;
    s3_client store(place, control);
    texts keys;
    for (int id = first_id; id < first_id + hosts * files_of_each; ++id) {
      const file_state &file =
          states[(id - first_id) / files_of_each].files[(id - first_id) % files_of_each];
      const support::stored_bytes target("");
      const s3_answer answer = store.get(key_of(id), target.body().fd);
      if (file.done == 0) {
        EXPECT_EQ(answer.outcome, s3_outcome::not_found) << id << " is back";
        continue;
      }
      keys.push_back(key_of(id));
      EXPECT_TRUE(answer) << id << " is lost";
      EXPECT_TRUE(support::content_of(target.body().fd) == content(id, file.done)) << id;
    }
    EXPECT_EQ(store.list("").objects.size(), keys.size());
    return keys;
  }

  // Beside the files that are stored. Without a record here, parts in the store are forgotten ones,
  // which the service ends after seven days.
  texts leftovers(const texts &keys) const {
    texts found = files("in");
    for (const std::string &name : files("out")) found.push_back(name);
    for (const std::string &name : files("cache/main")) {
      if (!std::binary_search(keys.begin(), keys.end(), name)) found.push_back(name);
    }
    return found;
  }

  const unsigned seed = from_environment("SPOOLCAP_SEED", std::random_device()());
  std::mt19937 draw{seed};
  shared_state *const states = static_cast<shared_state *>(
      ::mmap(nullptr, hosts * sizeof(shared_state), PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  s3_place place = support::new_bucket(support::shared_object_store());
  support::transfer_daemon daemon{box, place, "TRANSFER_MULTIPART 5\nTRANSFER_PART 5\n"};
  std::unique_ptr<support::background_process> running[hosts];
};

TEST_F(Kills, LoseNothingBringNothingBackAndLeaveNothingOver) {
  ASSERT_TRUE(daemon.start());
  for (int host = 0; host < hosts; ++host) start_host(host);
  const unsigned kills = from_environment("SPOOLCAP_KILLS", 10);
  for (unsigned i = 0; i < kills && !HasFatalFailure(); ++i) kill_one();
  int downloads = 0, versions = 0;
  for (int host = 0; host < hosts; ++host) {
    states[host].stop = true;
    EXPECT_EQ(running[host]->wait(60s).value().status, 0);
    EXPECT_EQ(states[host].wrong, 0) << "a download was not what was stored";
    downloads += states[host].downloads;
    versions += states[host].versions;
  }
  EXPECT_GT(downloads, 0);
  std::fprintf(stderr, "%u kills, %d files stored, %d fetched\n", kills, versions, downloads);
  let_the_window_pass();
  EXPECT_EQ(members("up") + members("del"), "");
  EXPECT_EQ(box.redis({"EVAL", "return #redis.call('KEYS', 'storage:claim:*')", "0"}), "0");
  const texts keys = expect_right_objects();
  texts over;
  EXPECT_TRUE(support::eventually([&] { return (over = leftovers(keys)).empty(); }))
      << testing::PrintToString(over);
}

}  // namespace
