// Fast updates, verification and refreshes of many processes at once, and processes that are killed
// in the middle: what they leave is exact, or says that it is not.
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <functional>
#include <random>

#include "main/quota/record.h"
#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr int workers = 8;
constexpr int updates = 2000;
constexpr int64_t start_value = 1'000'000'000;

// Numbers that all processes of a test see.
struct shared_numbers {
  std::atomic<int64_t> sum;  // of all deltas
  std::atomic<int64_t> done;
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

  // A process with a pool of its own.
  static pid_t start(const std::function<bool()> &work) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    // What a verification prints is of no use here.
    ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    qx_sql_pool_init();
    ::_exit(work() ? 0 : 1);
  }

  static void expect_success(pid_t child) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }

  // The eight updating processes, beside others that go on until they are stopped.
  void run_updates(int wait, const std::vector<std::function<bool()>> &others) {
    std::vector<pid_t> beside;
    beside.reserve(others.size());
    for (const auto &work : others) {
      beside.push_back(start([&] {
        bool good = true;
        while (!shared->stop && good) good = work();
        return good;
      }));
    }
    std::vector<pid_t> children;
    for (unsigned seed = 0; seed < workers; ++seed) {
      children.push_back(start([&] {
        std::mt19937 random(seed);
        std::uniform_int_distribution<int> sizes(-10'000, 10'000);
        bool good = true;
        for (int i = 0; i < updates; ++i) {
          const int delta = sizes(random) | 1;  // never 0
          shared->sum += delta;
          good = quota_update(21, QUOTA_SOUND, delta, wait) == 0 && good;
        }
        return good;
      }));
    }
    for (const pid_t child : children) expect_success(child);
    shared->stop = true;
    for (const pid_t child : beside) expect_success(child);
  }

  bool is_marked(const std::string &path) const { return fs::exists(path + ".dirty"); }

  shared_numbers *shared;
  std::vector<std::string> paths = {box.quota_path(1, 2, 21, "sound"),
                                    box.quota_path(1, 2, 0, "sound"),
                                    box.quota_path(1, 0, 0, "sound")};
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

TEST_F(Contention, ReadersAlwaysFindARecordAndAQuietRefreshMakesAllExact) {
  store_everywhere(std::to_string(start_value) + ".0");
  run_updates(30, {[] { return quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 10) == 0; },
                   [] { return quota_verify_disk(QUOTA_SOUND, 1, 2, 21, 1, 1, 1) >= 0; },
                   [] {
                     int64_t values[] = {0, 0, 0};
                     quota_read(21, 2, 1, QUOTA_SOUND, values, nullptr);
                     quota_read(2, 1, 0, QUOTA_SOUND, values + 1, nullptr);
                     quota_read(1, 0, 0, QUOTA_SOUND, values + 2, nullptr);
                     return values[0] >= 0 && values[1] >= 0 && values[2] >= 0;
                   }});
  expect_success(start([] { return quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 10) == 0; }));
  EXPECT_EQ(stored(), right_figures);
}

TEST_F(Contention, FirstUpdatesOfAFileMeetWithoutAMark) {
  const std::string &path = paths[0];
  for (int round = 0; round < 20; ++round) {
    fs::remove_all(fs::path(path).parent_path());
    shared->stop = false;
    std::vector<pid_t> children(6);
    for (pid_t &child : children) {
      child = start([&] {
        while (!shared->stop) continue;
        return quota_upd_fast_internal(path.c_str(), 5, 10'000) > 0;
      });
    }
    shared->stop = true;
    for (const pid_t child : children) expect_success(child);
    EXPECT_EQ(box.read_file(path), "30.6");
    EXPECT_FALSE(is_marked(path));
  }
}

TEST_F(Contention, AnUpdateThatIsKilledWasDoneOrNot) {
  const std::string &path = paths[0];
  std::mt19937 random(1);
  std::uniform_int_distribution<useconds_t> pauses(0, 3000);
  for (int round = 0; round < 100; ++round) {
    box.write_file(path, "7.7");
    shared->done = 0;
    const pid_t child = start([&] {
      for (;; ++shared->done) quota_upd_fast_internal(path.c_str(), 7, 30);
      return true;
    });
    while (shared->done == 0) ::usleep(100);
    ::usleep(pauses(random));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const int64_t value = quota_upd_fast_internal(path.c_str(), 7, 0);
    EXPECT_GE(value, 7 * (shared->done + 2)) << "the lock went with its holder";
    EXPECT_LE(value, 7 * (shared->done + 3));
    EXPECT_FALSE(is_marked(path));
  }
}

TEST_F(Contention, AHolderThatIsKilledHoldsNothing) {
  for (const bool after_write : {false, true}) {
    box.write_file(paths[0], "5.5");
    const pid_t child = start([&] {
      const unique_fd file(::open(paths[0].c_str(), O_RDWR | O_CLOEXEC));
      ::flock(file.get(), LOCK_EX);
      if (after_write) quota_write_internal(file.get(), 6, 6);
      return ::raise(SIGKILL) == 0;
    });
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(quota_upd_fast_internal(paths[0].c_str(), 1, 0), after_write ? 7 : 6);
    EXPECT_EQ(box.read_file(paths[0]), after_write ? "7.7" : "6.6");
    expect_success(start([] { return quota_update_slow(1, QUOTA_SOUND, nullptr, 10) == 0; }));
    EXPECT_EQ(box.read_file(paths[0]), "30.0");
  }
}

}  // namespace
