// Fast updates, verification and refreshes of many processes at once: what they leave is exact, or
// says that it is not.
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <list>
#include <random>

#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;
using support::background_process;

constexpr int workers = 8;
constexpr int updates = 2000;
constexpr int64_t start_value = 1'000'000'000;

// Numbers that all processes of a test see.
struct shared_numbers {
  std::atomic<int64_t> sum;  // of all deltas
  std::atomic<bool> stop;
};

class Contention : public refresh_test {
 protected:
  Contention() {
    void *memory =
        ::mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared = new (memory) shared_numbers{};
    for (const std::string &path : paths) box.write_file(path, std::to_string(start_value) + ".0");
  }
  ~Contention() override { ::munmap(shared, sizeof *shared); }

  static void expect_success(std::list<background_process> &children) {
    for (background_process &child : children) {
      EXPECT_EQ(child.wait(std::chrono::minutes(1)).value().status, 0);
    }
  }

  bool update_often(int wait, unsigned seed) const {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> sizes(-10'000, 10'000);
    bool good = true;
    for (int i = 0; i < updates; ++i) {
      const int delta = sizes(random) | 1;  // never 0
      shared->sum += delta;
      good = quota_update(21, QUOTA_SOUND, delta, wait) == 0 && good;
    }
    return good;
  }

  // The eight updating processes, beside others that go on until they are stopped.
  void run_updates(int wait, const std::vector<std::function<bool()>> &others) const {
    std::list<background_process> beside, updating;
    for (const auto &work : others) {
      beside.emplace_back([&] {
        // What a verification prints is of no use here.
        ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        bool good = true;
        while (!shared->stop && good) good = work();
        return good;
      });
    }
    for (unsigned seed = 0; seed < workers; ++seed) {
      updating.emplace_back([&] { return update_often(wait, seed); });
    }
    expect_success(updating);
    shared->stop = true;
    expect_success(beside);
  }

  static bool is_marked(const std::string &path) { return fs::exists(path + ".dirty"); }

  shared_numbers *shared;
  std::vector<std::string> paths = {box.quota_path("1/2/21/sound"), box.quota_path("1/2/sound"),
                                    box.quota_path("1/sound")};
};

TEST_F(Contention, UpdatesThatWaitLongEnoughAreAllThere) {
  run_updates(60'000, {});
  const std::string expected =
      std::to_string(start_value + shared->sum) + "." + std::to_string(workers * updates);
  for (const std::string &path : paths) {
    EXPECT_FALSE(is_marked(path)) << path;
    EXPECT_EQ(box.read_file(path), expected) << path;
  }
}

TEST_F(Contention, AFileIsExactOrMarkedBesideAVerification) {
  box.set_preference(21, "max_sound", "1");
  run_updates(30, {[] {
                return quota_verify(21, QUOTA_SOUND) >= 0 &&
                       quota_verify_disk(QUOTA_SOUND, 1, 2, 21, 1, -1, -1) >= 0;
              }});
  for (const std::string &path : paths) {
    const std::string text = box.read_file(path).value_or("");
    long long value = -1;
    unsigned revision = 0;
    int length = 0;
    EXPECT_EQ(std::sscanf(text.c_str(), "%lld.%u%n", &value, &revision, &length), 2) << text;
    EXPECT_EQ(static_cast<size_t>(length), text.size()) << text;
    EXPECT_TRUE(is_marked(path) || value == start_value + shared->sum) << path;
  }
}

TEST_F(Contention, ReadersAlwaysFindARecord) {
  store_everywhere(std::to_string(start_value) + ".0");
  run_updates(30, {[] { return quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 10) == 0; },
                   [] {
                     int64_t values[] = {0, 0, 0};
                     quota_read(21, 2, 1, QUOTA_SOUND, values, nullptr);
                     quota_read(2, 1, 0, QUOTA_SOUND, values + 1, nullptr);
                     quota_read(1, 0, 0, QUOTA_SOUND, values + 2, nullptr);
                     return values[0] >= 0 && values[1] >= 0 && values[2] >= 0;
                   }});
  EXPECT_EQ(quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 10), 0);
  EXPECT_EQ(stored(), right_figures);
}

TEST_F(Contention, FirstUpdatesOfAFileMeetWithoutAMark) {
  const std::string &path = paths[0];
  for (int round = 0; round < 20; ++round) {
    fs::remove_all(fs::path(path).parent_path());
    shared->stop = false;
    std::list<background_process> children;
    for (int i = 0; i < 6; ++i) {
      children.emplace_back([&] {
        while (!shared->stop) continue;
        return quota_upd_fast_internal(path.c_str(), 5, 60'000) > 0;
      });
    }
    shared->stop = true;
    expect_success(children);
    EXPECT_EQ(box.read_file(path), "30.6");
    EXPECT_FALSE(is_marked(path));
  }
}

}  // namespace
