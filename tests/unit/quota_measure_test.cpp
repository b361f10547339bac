// The walk over media directories: what counts, what is left alone, and that nothing stops it.
#include "quota/measure.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/owner.h"
#include "quota/quota.h"
#include "support/process.h"
#include "support/servers.h"

namespace {

namespace fs = std::filesystem;

class Walk : public testing::Test {
 protected:
  Walk() { open_folder("."); }
  // The trees below are deeper than what the standard library removes.
  ~Walk() override {
    support::run_process({"chmod", "-R", "u+rwx", root()});
    support::run_process({"rm", "-rf", root() + "/tree"});
  }

  std::string root() const { return folder_.path().string(); }
  std::string tree(const std::string &name = "") const { return root() + "/tree/" + name; }

  void file(const std::string &name, off_t size) const {
    fs::create_directories(fs::path(tree(name)).parent_path());
    const unique_fd made(::open(tree(name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::ftruncate(made.get(), size), 0) << std::strerror(errno);
  }
  void open_folder(const std::string &name) const { fs::create_directories(tree(name)); }
  void link(const std::string &target, const std::string &name) const {
    fs::create_directories(fs::path(tree(name)).parent_path());
    fs::create_symlink(target, tree(name));
  }

  int64_t measured(const std::string &name = "", int recurse = 1) const {
    int64_t total = 0;
    EXPECT_EQ(compute_quota(tree(name).c_str(), &total, recurse), 0);
    return total;
  }

 private:
  support::private_folder folder_{"walk"};
};

// Lowers the limit on open descriptors so far that `spare` more can be opened.
class descriptor_limit {
 public:
  explicit descriptor_limit(rlim_t spare) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit lowered = before_;
    // The listing itself holds one of those it lists.
    const auto listed = std::distance(fs::directory_iterator("/proc/self/fd"), {});
    lowered.rlim_cur = static_cast<rlim_t>(listed) - 1 + spare;
    ::setrlimit(RLIMIT_NOFILE, &lowered);
  }
  descriptor_limit(const descriptor_limit &) = delete;
  descriptor_limit &operator=(const descriptor_limit &) = delete;
  ~descriptor_limit() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

TEST_F(Walk, CountsApparentSizesOfRegularFilesAndLeavesThePathAsItWas) {
  file("a", 100);
  file(".hidden", 50);
  file("sub/c", 10);
  open_folder("empty");
  const struct {
    std::string path;
    int recurse, result;
    int64_t total;  // from 1000
  } rows[] = {
      {tree(), 1, 0, 1160},        {tree(), 0, 0, 1150},           {tree() + "/", 1, 0, 1160},
      {tree("empty"), 1, 0, 1000}, {tree("missing"), 1, -1, 1000}, {tree("a"), 1, -1, 1000},
      {"", 1, -1, 1000},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.path + " recurse " + std::to_string(row.recurse));
    char *path = ::strdup(row.path.c_str());
    int64_t total = 1000;
    EXPECT_EQ(compute_quota_dir(&path, &total, row.recurse), row.result);
    EXPECT_EQ(total, row.total);
    EXPECT_EQ(std::string(path), row.path);
    std::free(path);
  }
}

TEST_F(Walk, DirectorySizeCountsFromOneBelowNothing) {
  file("a", 100);
  file("sub/c", 60);
  open_folder("empty");
  EXPECT_EQ(quota_get_dirsize(tree().c_str()), 159);
  EXPECT_EQ(quota_get_dirsize(tree("empty").c_str()), -1);
  EXPECT_EQ(quota_get_dirsize(tree("missing").c_str()), -1);
}

TEST_F(Walk, FollowsLinksToFilesAndDirectories) {
  file("elsewhere/big", 1000);
  file("elsewhere/deeper/more", 200);
  file("media/own", 5);
  link("../elsewhere/big", "media/to_file");
  link(tree("elsewhere"), "media/to_directory");
  link("nowhere", "media/broken");
  link("circle", "media/circle");
  EXPECT_EQ(measured("media"), 5 + 1000 + 1200);
  EXPECT_EQ(measured("media", 0), 5 + 1000);
  link("media", "entry");
  EXPECT_EQ(measured("entry"), 5 + 1000 + 1200) << "the given path may be a link itself";
}

TEST_F(Walk, ADirectoryOnTheCurrentPathIsNotEnteredAgain) {
  const struct {
    const char *name, *target, *from;
    int64_t total;
  } rows[] = {
      {"a/self", ".", ".", 111},
      {"a/parent", "..", ".", 111},
      {"a/b/top", "../..", ".", 111},
      {"a/b/middle", "..", ".", 111},
      // From inside `a` a link to the top is new ground; `a` is not, when it is met there again.
      {"a/b/top", "../..", "a", 11 + 100},
      {"a/b/root", "../../..", ".", 111},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.name << " -> " << row.target << " from " << row.from);
    fs::remove_all(root() + "/tree");
    file("top", 100);
    file("a/x", 10);
    file("a/b/y", 1);
    link(row.target, row.name);
    EXPECT_EQ(measured(row.from), row.total);
  }
}

TEST_F(Walk, FifosSocketsAndDevicesAreNeverOpened) {
  file("a", 3);
  ASSERT_EQ(::mkfifo(tree("fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mknod(tree("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  link("fifo", "to_fifo");
  link("/dev/zero", "to_device");
  // A walk that opened the fifo to read it would wait here for a writer.
  ::alarm(20);
  EXPECT_EQ(measured(), 3);
  int64_t total = 0;
  EXPECT_EQ(compute_quota(tree("fifo").c_str(), &total, 1), -1);
  ::alarm(0);
}

TEST_F(Walk, NamesMayBeAnyBytes) {
  const std::string names[] = {
      "line\nbreak", "\xff\xfe\x80",        " ",     "-rf", "...", "..x", ".x",
      "per%scent",   std::string(255, 'n'), "ta\tb", "\x01"};
  int64_t expected = 0;
  for (const std::string &name : names) {
    std::string folder("d");
    file(folder.append(name, 0, 250).append("/").append(name), 1000);
    file(name, 1);
    expected += 1001;
  }
  EXPECT_EQ(measured(), expected);
}

TEST_F(Walk, SumsBeyondThirtyTwoBits) {
  constexpr off_t tebibyte = off_t{1} << 40;
  file("a", 3 * tebibyte);
  file("sub/b", 2 * tebibyte + 1);
  EXPECT_EQ(measured(), 5 * tebibyte + 1);
}

TEST_F(Walk, WhatCannotBeReadAddsNothing) {
  file("a", 1);
  file("closed/b", 10);
  file("open/c", 100);
  fs::permissions(tree("closed"), fs::perms::none);
  // Root reads everything, so that it has to be somebody else here, in a folder open to all.
  const bool is_root = ::geteuid() == 0;
  fs::permissions(root(), fs::perms::all);
  fs::permissions(tree(), fs::perms::all);
  fs::permissions(tree("open"), fs::perms::all);
  fs::current_path(root());
  if (is_root) {
    ASSERT_EQ(::seteuid(65534), 0);
  }
  int64_t total = 0;
  const int whole = compute_quota("tree", &total, 1);
  const int closed = compute_quota("tree/closed", &total, 1);
  if (is_root) {
    ASSERT_EQ(::seteuid(0), 0);
  }
  fs::current_path("/");
  EXPECT_EQ(whole, 0);
  EXPECT_EQ(closed, -1);
  EXPECT_EQ(total, 101);
}

// A chain of directories; on each level one file of a byte and, on both sides of the one that goes
// on, a branch with a file of 100 bytes, so that every level has more to enter on the way back.
void make_deep_tree(const std::string &top, int depth, const std::string &name) {
  unique_fd at(::open(top.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
  const std::string branches[] = {"a" + name, "z" + name};
  for (int i = 0; i < depth; ++i) {
    ASSERT_EQ(::mkdirat(at.get(), name.c_str(), 0700), 0);
    for (const std::string &branch : branches) {
      ASSERT_EQ(::mkdirat(at.get(), branch.c_str(), 0700), 0);
      const unique_fd made(
          ::openat(at.get(), (branch + "/f").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
      ASSERT_EQ(::ftruncate(made.get(), 100), 0);
    }
    at.reset(::openat(at.get(), name.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
    const unique_fd made(::openat(at.get(), "f", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_EQ(::ftruncate(made.get(), 1), 0);
  }
}

TEST_F(Walk, DeepTreesAreMeasuredInFullWithFewDescriptors) {
  // Each far beyond the longest path that a call takes.
  open_folder("deep");
  open_folder("less_deep");
  make_deep_tree(tree("deep"), 2500, std::string(200, 'd'));
  make_deep_tree(tree("less_deep"), 300, std::string(200, 'd'));
  const struct {
    const char *name;
    int depth;
    unsigned spare;  // descriptors
  } rows[] = {
      {"deep", 2500, 256}, {"deep", 2500, 20}, {"less_deep", 300, 3}, {"less_deep", 300, 2}};
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.name << ", " << row.spare << " descriptors to spare");
    const descriptor_limit limit(row.spare);
    EXPECT_EQ(measured(row.name), row.depth * 201);
  }
}

TEST_F(Walk, LoopsAreSeenFromFarBelow) {
  constexpr int depth = 100;
  make_deep_tree(tree(), depth, "d");
  const int64_t plain = measured();
  std::string middle;
  std::string bottom;
  for (int i = 0; i < depth; ++i) (i < depth / 2 ? middle : bottom) += "d/";
  link(tree(), middle + bottom + "to_top");
  link(tree(middle), middle + bottom + "to_middle");
  link("..", middle + bottom + "to_parent");
  link(tree(), middle + "zd/to_top");
  // New ground outside the path, with a way back into it.
  file("../outside/f", 5000);
  fs::create_symlink(tree(), root() + "/outside/back");
  link(root() + "/outside", middle + bottom + "out");
  for (const unsigned spare : {256U, 3U, 2U}) {
    SCOPED_TRACE(testing::Message() << spare << " descriptors to spare");
    const descriptor_limit limit(spare);
    EXPECT_EQ(measured(), plain + 5000);
  }
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
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    fs::remove_all(root() + "/tree");
    std::vector<std::string> folders = {"."};
    open_folder(".");
    const auto some_folder = [&] { return folders[random() % folders.size()]; };
    for (int i = 0; i < 60; ++i) {
      // Mostly below the newest, so that the trees are deep.
      folders.push_back((random() % 3 != 0 ? folders.back() : some_folder()) + "/" +
                        std::to_string(i));
      open_folder(folders.back());
      file(some_folder() + "/f" + std::to_string(i), static_cast<off_t>(random() % 1000));
    }
    for (int i = 0; i < 6; ++i) link(tree(some_folder()), some_folder() + "/l" + std::to_string(i));
    const int64_t expected = plainly(tree(), {});
    EXPECT_EQ(measured(), expected);
    const descriptor_limit limit(2);
    EXPECT_EQ(measured(), expected) << "with two descriptors to spare";
  }
}

}  // namespace
