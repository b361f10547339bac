// The refresh when disk or database fail, when it is killed, and when several run at once: other
// accounts go on, and the next refresh makes good what this one could not.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "quota/refresh.h"
#include "refresh_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Here refreshes run in processes of their own, as they do in life; each sets up its own pool.
class RefreshTrouble : public refresh_test {
 protected:
  static pid_t in_child(const std::function<int()> &body) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    qx_sql_pool_init();
    ::_exit(body());
  }

  static int status_of(pid_t child) {
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static int refresh(int account, int force) {
    return status_of(in_child(
        [&] { return quota_update_slow(account, QUOTA_ALL_KINDS, nullptr, force) == 0 ? 0 : 1; }));
  }
};

TEST_F(RefreshTrouble, ADirectoryInTheWayOfAFileIsMadeUpForLater) {
  const fs::path obstacle = box.quota_path(1, 2, 21, "recording");
  fs::create_directories(obstacle / "not empty");
  EXPECT_EQ(refresh(1, 10), 0);
  figures expected = right_figures();
  expected["1/2/21"] = "0.0 30.0 - 3.0 0.0";
  expected["1/2"] = "7.0 230.0 5.0! 3.0 50.0";
  expected["1"] = "7.0 1234.0 5.0! 3.0 51.0";
  const figures found = stored();
  for (const auto &[place, files] : expected) EXPECT_EQ(found.at(place), files) << place;

  fs::remove_all(obstacle);
  EXPECT_EQ(refresh(1, 0), 0);
  EXPECT_EQ(stored(), right_figures());
}

TEST_F(RefreshTrouble, AFileInTheWayOfADirectoryIsMadeUpForLater) {
  for (const char *obstacle : {"1/2", "1", ""}) {
    SCOPED_TRACE(obstacle);
    fs::remove_all(quota_root());
    const std::string path = std::string("var/lib/quorvexquota/") + obstacle;
    box.write_file(path.substr(0, path.find_last_not_of('/') + 1), "in the way");
    EXPECT_EQ(refresh(1, 10), 0);
    if (obstacle == std::string("1/2")) {
      EXPECT_EQ(stored().at("1/3"), right_figures().at("1/3"));
    }
    fs::remove(path.back() == '/' ? quota_root() : box.path(path));
    EXPECT_EQ(refresh(1, 0), 0);
    EXPECT_EQ(stored(), right_figures());
  }
}

TEST_F(RefreshTrouble, AFullFileSystemIsMadeUpForLater) {
  box.make_folder("var/lib/quorvexquota");
  if (::getuid() != 0 ||
      ::mount("none", quota_root().c_str(), "tmpfs", 0, "size=128k,mode=0770") != 0) {
    GTEST_SKIP() << "needs root with the right to mount";
  }
  const struct unmount {
    ~unmount() { ::umount2(where.c_str(), MNT_DETACH); }
    std::string where;
  } at_end{quota_root()};
  const std::string ballast = "var/lib/quorvexquota/ballast";
  const auto fill = [&] {
    std::ofstream file(box.path(ballast), std::ios::app);
    while (file << std::string(4096, 'x') << std::flush) continue;
  };

  fill();
  EXPECT_EQ(refresh(1, 10), 0);
  for (const auto &[place, files] : stored()) {
    EXPECT_EQ(files.find_first_of("0123456789"), std::string::npos) << place << " " << files;
  }
  fs::remove(box.path(ballast));
  EXPECT_EQ(refresh(1, 0), 0);
  EXPECT_EQ(stored(), right_figures());

  // Files that are there take no more room.
  store_everywhere("9999999.1", false);
  fill();
  EXPECT_EQ(refresh(1, 10), 0);
  EXPECT_EQ(stored(), right_figures());
}

TEST_F(RefreshTrouble, WhatTheDatabaseDidNotTellIsMadeUpForLater) {
  box.sql("RENAME TABLE extension_recording TO gone");
  EXPECT_EQ(refresh(1, 0), 0);
  EXPECT_EQ(stored(), (figures{{"1", "7.0 1234.0 0.0! 3.0 51.0"},
                               {"1/2", "7.0 230.0 0.0! 3.0 50.0"},
                               {"1/2/21", "0.0 30.0 0.0! 3.0 0.0"},
                               {"1/2/22", "7.0 0.0 0.0! 0.0 50.0"},
                               {"1/3", "0.0 4.0 0.0! 0.0 0.0"},
                               {"1/3/31", "0.0 4.0 0.0! 0.0 0.0"}}));
  box.sql("RENAME TABLE gone TO extension_recording");
  EXPECT_EQ(refresh(1, 0), 0);
  EXPECT_EQ(stored(), right_figures());
}

TEST_F(RefreshTrouble, AfterAKillTheNextRefreshGivesTheRightFigures) {
  const auto started = std::chrono::steady_clock::now();
  ASSERT_EQ(refresh(1, 10), 0);
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - started;
  std::mt19937 random(1);
  std::uniform_real_distribution<double> share(0, 1);
  int killed_half_way = 0;
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    fs::remove_all(quota_root());
    if (round % 2 == 0) store_everywhere("1.3", true);
    const figures before = stored();
    const pid_t child =
        in_child([] { return quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 0) == 0 ? 0 : 1; });
    std::this_thread::sleep_for(whole * share(random));
    ::kill(child, SIGKILL);
    status_of(child);
    const figures left = stored();
    if (left != before && left != right_figures()) ++killed_half_way;
    ASSERT_EQ(refresh(1, 0), 0);
    ASSERT_EQ(stored(), right_figures());
  }
  EXPECT_GT(killed_half_way, 0) << "no round hit a refresh in its middle";
}

TEST_F(RefreshTrouble, WritersAtOnceNeverShowAReaderABrokenRecord) {
  std::vector<std::string> files;
  for (const auto &[place, unused] : right_figures()) {
    for (const char *kind : quota_kind_names)
      files.push_back(quota_root() + "/" + place + "/" + kind + ".quota");
  }
  const auto refresh_often = [&](bool write_between) {
    for (int i = 0; i < 25; ++i) {
      if (quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 10) != 0) return 1;
      // Values of other lengths, as updates from elsewhere leave them.
      for (const std::string &name : files) {
        if (write_between && quota_real_update(name.c_str(), 123456789012, 5) != 0) return 1;
      }
    }
    return 0;
  };
  std::set<pid_t> children = {in_child([&] { return refresh_often(false); }),
                              in_child([&] { return refresh_often(true); })};
  std::set<std::string> seen;
  while (!children.empty()) {
    for (const std::string &name : files) {
      const unique_fd file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
      int64_t value = 0;
      const bool valid = file && quota_read_internal(file.get(), &value, nullptr) == 0;
      if (valid) seen.insert(name);
      // A file that has just been made is still empty; from then on there is always a record.
      EXPECT_TRUE(valid || !seen.contains(name)) << name;
    }
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, WNOHANG);
    if (ended <= 0) continue;
    children.erase(ended);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(seen.size(), files.size());
  EXPECT_EQ(refresh(1, 10), 0);
  EXPECT_EQ(stored(), right_figures());
}

TEST_F(RefreshTrouble, ARefreshWaitsForWhoeverHoldsALock) {
  ASSERT_EQ(refresh(1, 10), 0);
  box.write_quota_file(1, 2, 0, "sound", "1.0");
  const unique_fd held(::open(box.quota_path(1, 2, 0, "sound").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  const pid_t child =
      in_child([] { return quota_update_slow(1, QUOTA_SOUND, nullptr, 10) == 0 ? 0 : 1; });
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), 0) << "still waiting";
  EXPECT_EQ(box.quota_file(1, 2, 0, "sound"), "1.0");
  ASSERT_EQ(::flock(held.get(), LOCK_UN), 0);
  EXPECT_EQ(status_of(child), 0);
  EXPECT_EQ(stored(), right_figures());
}

}  // namespace
