// The walk over media directories: what counts, what is left alone, and that nothing stops it.
#include "main/quota/measure.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <set>

#include <spoolcap/quota.h>
#include "tests/support/log_capture.h"
#include "tests/support/servers.h"

namespace {

namespace fs = std::filesystem;

class Walk : public testing::Test {
 protected:
  Walk() { fs::create_directory(tree()); }
  std::string tree(const std::string &name = "") const {
    return folder_.path().string() + "/tree/" + name;
  }
  void file(const std::string &name, uintmax_t size) const {
    fs::create_directories(fs::path(tree(name)).parent_path());
    std::ofstream(tree(name)).close();
    fs::resize_file(tree(name), size);
  }
  void link(const std::string &target, const std::string &name) const {
    fs::create_symlink(target, tree(name));
  }

  int64_t measured(const std::string &name = "", int recurse = 1) const {
    int64_t total = 0;
    EXPECT_EQ(compute_quota(tree(name).c_str(), &total, recurse), 0);
    return total;
  }

  // The same with no more than `spare` further descriptors, whichever are in use.
  int64_t measured_with(size_t spare) const {
    std::vector<unique_fd> taken(spare);
    for (unique_fd &one : taken) one.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit lowered{static_cast<rlim_t>(taken.back().get()) + 1, before.rlim_max};
    taken.clear();
    ::setrlimit(RLIMIT_NOFILE, &lowered);
    const int64_t total = measured();
    ::setrlimit(RLIMIT_NOFILE, &before);
    return total;
  }

  support::log_capture log;

 private:
  support::private_folder folder_{"walk"};
};

TEST_F(Walk, AddsApparentSizesOfRegularFiles) {
  constexpr int64_t tebibyte = int64_t{1} << 40;
  file("a", 3 * tebibyte);
  file(".hidden", 50);
  file("...", 5);
  file("sub/\xff\n", 10);
  const struct {
    std::string path;
    int recurse, result;
    int64_t added;
  } rows[] = {{tree(), 1, 0, 3 * tebibyte + 65},
              {tree(), 0, 0, 3 * tebibyte + 55},
              {tree("missing"), 1, -1, 0},
              {tree("a"), 1, -1, 0},
              {"", 1, -1, 0}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.path + " recurse " + std::to_string(row.recurse));
    std::string path = row.path;
    char *given = path.data();
    int64_t total = 1000;
    EXPECT_EQ(compute_quota_dir(&given, &total, row.recurse), row.result);
    EXPECT_EQ(total, 1000 + row.added);
    EXPECT_EQ(path, row.path);
  }
  EXPECT_EQ(quota_get_dirsize(tree("sub").c_str()), 9) << "one below what it is";
}

TEST_F(Walk, FollowsLinksButNotBackUp) {
  file("elsewhere/deeper/more", 200);
  file("media/own", 5);
  link("../media/own", "media/to_file");
  link(tree("elsewhere"), "media/to_directory");
  link("nowhere", "media/broken");
  link("circle", "media/circle");
  link("../../media", "elsewhere/deeper/up");
  link("media", "entry");
  EXPECT_EQ(measured("entry"), 5 + 5 + 200) << "the given path may be a link itself";
  EXPECT_EQ(measured("media", 0), 5 + 5);
}

TEST_F(Walk, FifosSocketsAndDevicesAreNeverOpened) {
  file("a", 3);
  ASSERT_EQ(::mkfifo(tree("fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mknod(tree("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  link("fifo", "to_fifo");
  link("/dev/zero", "to_device");
  ::alarm(20);  // a walk that opened the fifo to read it would wait here for a writer
  EXPECT_EQ(measured(), 3);
  EXPECT_EQ(quota_get_dirsize(tree("fifo").c_str()), -1);
  ::alarm(0);
}

TEST_F(Walk, WhatCannotBeReadAddsNothing) {
  file("a", 1);
  file("closed/b", 10);
  file("open/c", 100);
  // Root reads everything, so that it has to be somebody else here, in folders open to all.
  for (const char *name : {"..", ".", "open"}) fs::permissions(tree(name), fs::perms::all);
  fs::permissions(tree("closed"), fs::perms::none);
  fs::current_path(tree());
  const uid_t self = ::geteuid();
  ASSERT_EQ(::seteuid(self == 0 ? 65534 : self), 0);
  int64_t total = 0;
  EXPECT_EQ(compute_quota(".", &total, 1), 0);
  EXPECT_EQ(compute_quota("closed", &total, 1), -1);
  ASSERT_EQ(::seteuid(self), 0);
  EXPECT_EQ(total, 101);
  fs::permissions(tree("closed"), fs::perms::owner_all);
}

TEST_F(Walk, DeepTreesAreMeasuredInFullWithFewDescriptors) {
  // Far beyond the longest path that a call takes, and with more to enter on the way back.
  constexpr int depth = 2000;
  const std::string down(200, 'd');
  fs::current_path(tree());
  for (int i = 0; i < depth; ++i) {
    for (const std::string &name : {down, "other" + down}) {
      fs::create_directory(name);
      std::ofstream(name + "/f") << "seven b";
    }
    fs::current_path(down);
  }
  fs::current_path("/");
  EXPECT_EQ(measured_with(20), depth * 2 * 7);
}

TEST_F(Walk, DirectoriesLinkedToEachOtherAreMeasuredWithinABound) {
  log.expect(FR_LOG_WARNING, "folders are entered through links");
  // Two ways down on each of 18 levels, and nine folders with a link to each other.
  for (int level = 0; level < 18; ++level) {
    const std::string here = "ladder/" + std::to_string(level);
    file(here + "/f", 1);
    for (const char *name : {"/a", "/b"}) link("../" + std::to_string(level + 1), here + name);
  }
  for (int from = 0; from < 9; ++from) {
    const std::string here = "clique/" + std::to_string(from);
    file(here + "/f", 1);
    for (int to = 0; to < 9; ++to) {
      link("../" + std::to_string(to), here + "/" + std::to_string(to));
    }
  }
  for (const char *maze : {"ladder/0", "clique/0"}) {
    const disk_usage found = measure_directory(tree(maze).c_str(), true);
    EXPECT_FALSE(found.is_all) << maze;
    EXPECT_EQ(log.count(maze), 1U) << "warnings";
    EXPECT_GT(found.bytes, 90'000U) << maze;
    EXPECT_LE(found.bytes, 100'001U) << maze;
  }
  const disk_usage few = measure_directory(tree("ladder/4").c_str(), true);
  EXPECT_EQ(few.bytes, (1U << 14U) - 1) << "below the bound each link counts";
  EXPECT_TRUE(few.is_all);
}

// The rule said again in the plainest way: by full paths, recursively.
int64_t plainly(const std::string &path, std::set<std::pair<dev_t, ino_t>> above) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return 0;
  if (S_ISREG(status.st_mode)) return status.st_size;
  if (!S_ISDIR(status.st_mode) || !above.emplace(status.st_dev, status.st_ino).second) return 0;
  int64_t total = 0;
  for (const auto &entry : fs::directory_iterator(path)) total += plainly(entry.path(), above);
  return total;
}

TEST_F(Walk, AgreesWithAPlainWalkOnTreesFullOfLinks) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    fs::remove_all(tree());
    std::vector<std::string> folders = {"."};
    const auto some_folder = [&] { return folders[random() % folders.size()]; };
    for (int i = 0; i < 60; ++i) {
      // Mostly below the newest, and every other tree deeper than the levels that stay open.
      const bool deeper = random() % (seed % 2 == 0 ? 3 : 60) != 0;
      folders.push_back((deeper ? folders.back() : some_folder()) + "/" + std::to_string(i));
      file(folders.back() + "/f", random() % 1000);
    }
    for (int i = 0; i < 6; ++i) link(tree(some_folder()), some_folder() + "/l" + std::to_string(i));
    const int64_t expected = plainly(tree(), {});
    EXPECT_EQ(measured(), expected);
    EXPECT_EQ(measured_with(3), expected) << "with three descriptors to spare";
  }
}

}  // namespace
