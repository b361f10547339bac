// The refresh when disk or database fail, or others hold locks: the other accounts go on, and the
// next refresh makes good what this one could not.
#include <sys/mount.h>
#include <sys/wait.h>

#include <fstream>
#include <thread>

#include "main/quota/folder.h"
#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Here refreshes run in processes of their own, as they do in life; each sets up its own pool.
class RefreshTrouble : public refresh_test {
 protected:
  static pid_t start(int force) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    qx_sql_pool_init();
    ::_exit(quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, force) == 0 ? 0 : 1);
  }

  static void expect_success(pid_t child) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }

  static void refresh(int force) { expect_success(start(force)); }
};

TEST_F(RefreshTrouble, AFullFileSystemIsMadeUpForLater) {
  box.make_folder("var/lib/quorvexquota");
  if (::getuid() != 0 ||
      ::mount("none", quota_root().c_str(), "tmpfs", 0, "size=128k,nr_inodes=80,mode=0770") != 0) {
    GTEST_SKIP() << "needs root with the right to mount";
  }
  const struct unmount {
    ~unmount() { ::umount2(where.c_str(), MNT_DETACH); }
    std::string where;
  } at_end{quota_root()};
  const std::string ballast = quota_root() + "/ballast";
  // Takes all room, for data and for further files.
  const auto fill = [&] {
    fs::create_directory(ballast);
    for (int i = 0; std::ofstream file{ballast + "/" + std::to_string(i)}; ++i) {
      while (file << std::string(4096, 'x') << std::flush) continue;
    }
  };

  fill();
  refresh(10);
  for (const auto &[place, files] : stored()) EXPECT_EQ(files, "- - - - -") << place;
  fs::remove_all(ballast);
  refresh(0);
  EXPECT_EQ(stored(), right_figures);
}

TEST_F(RefreshTrouble, WhatTheDatabaseDidNotTellIsMadeUpForLater) {
  box.sql("RENAME TABLE extension_recording TO gone");
  refresh(0);
  EXPECT_EQ(stored(), (figures{{"1", "7.0 1234.0 0.0 3.0 51.0 redo"},
                               {"1/2", "7.0 230.0 0.0 3.0 50.0 redo"},
                               {"1/2/21", "0.0 30.0 0.0 3.0 0.0 redo"},
                               {"1/2/22", "7.0 0.0 0.0 0.0 50.0 redo"},
                               {"1/3", "0.0 4.0 0.0 0.0 0.0 redo"},
                               {"1/3/31", "0.0 4.0 0.0 0.0 0.0 redo"}}));
  box.sql("RENAME TABLE gone TO extension_recording");
  refresh(0);
  EXPECT_EQ(stored(), right_figures);
}

TEST_F(RefreshTrouble, ARefreshWaitsForWhoeverHoldsALock) {
  box.write_quota_file(1, 2, 0, "sound", "1.0");
  const unique_fd held(::open(box.quota_path(1, 2, 0, "sound").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(held.get(), LOCK_SH), 0);
  const pid_t child = start(10);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), 0) << "still waiting";
  EXPECT_EQ(box.quota_file(1, 2, 0, "sound"), "1.0");
  ASSERT_EQ(::flock(held.get(), LOCK_UN), 0);
  expect_success(child);
  EXPECT_EQ(stored(), right_figures);
}

}  // namespace
