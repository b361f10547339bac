// User asterisk owns the quota root and turns against a refresh that runs as root: with what he put
// there before, and with what he does between any two system calls.
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <sstream>

#include <spoolcap/quota.h>
#include "platform/base/ids.h"
#include "tests/faults/traced.h"
#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace faults;

class Attack : public refresh_test {
 protected:
  void SetUp() override {
    if (::getuid() != 0 && ::getenv("CI") == nullptr) {
      GTEST_SKIP() << "needs root, which is attacked";
    }
    ASSERT_EQ(::getuid(), 0U) << "needs root, which is attacked";
    ASSERT_EQ(get_ids("asterisk", "asterisk", &uid_, &gid_), 0);
    box.write_file("outside/secret", "7.0");
    fs::permissions(outside(), fs::perms::owner_all);
    fs::permissions(outside() / "secret", fs::perms::owner_read | fs::perms::owner_write);
    untouched_ = seen_outside();
    begin_with_empty_store();
  }

  fs::path outside() const { return box.root() / "outside"; }
  const char *secret() const { return secret_.c_str(); }

  void begin_with_empty_store() {
    fs::remove_all(quota_root());
    fs::create_directories(quota_root());
    ASSERT_EQ(::chown(quota_root().c_str(), uid_, gid_), 0);
  }

  // What is in the folder that is none of asterisk's business, with content, owner and mode.
  std::string seen_outside() const {
    std::string all;
    std::vector<fs::path> paths = {outside()};
    for (const auto &entry : fs::directory_iterator(outside())) paths.push_back(entry.path());
    for (const fs::path &path : paths) {
      struct stat status {};
      ::lstat(path.c_str(), &status);
      all += path.string() + " " + std::to_string(status.st_mode) + " " +
             std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid) + " ";
      if (S_ISREG(status.st_mode)) all += box.read_file(path.string()).value();
    }
    return all;
  }

  // Runs in the quota root as user asterisk.
  void as_asterisk(const std::function<bool()> &work) const {
    ASSERT_EQ(support::run_forked([&] {
                return ::chdir(quota_root().c_str()) == 0 && ::setgroups(0, nullptr) == 0 &&
                       ::setgid(gid_) == 0 && ::setuid(uid_) == 0 && work();
              }),
              0);
  }

  // One refresh as root, in a process of its own. It must come to its end by itself.
  void refresh(
      int force, const decision &decide = [](const call &) { return fate{}; }) {
    const std::string log_file = box.path("log");
    fs::remove(log_file);
    const int status = run_traced(
        [&] {
          static std::FILE *lines = std::fopen(log_file.c_str(), "ae");
          fr_log_set_sink(
              [](const fr_log_record *one, void *) {
                std::fprintf(lines, "%s\n", one->text);
                std::fflush(lines);
              },
              nullptr);
          ::_exit(quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, force) == 0 ? 0 : 1);
        },
        quota_root(), decide);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(seen_outside(), untouched_);
  }

  int lines_that_name(const std::string &entry) const {
    std::istringstream lines(box.read_file("log").value_or(""));
    const std::string named = quota_root() + "/" + entry + " ";
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
      count += line.find(named) != line.npos ? 1 : 0;
    }
    return count;
  }

  // All figures but those that a refused entry keeps from being known.
  void expect_siblings_exact(const std::string &refused) const {
    for (const auto &[place, files] : stored()) {
      if (refused.starts_with(place) || !right_figures.contains(place)) continue;
      EXPECT_EQ(files, right_figures.at(place)) << place;
    }
  }

 private:
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  std::string secret_ = (outside() / "secret").string();
  std::string untouched_;
};

bool make_socket(const char *name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", name);
  const unique_fd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return ::bind(made.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

TEST_F(Attack, WhatIsPutInTheWayHarmsNothingOutside) {
  const std::string missing = (outside() / "missing").string();
  const struct {
    const char *what;
    std::function<bool(const char *)> put;
  } things[] = {
      {"link", [&](const char *name) { return ::symlink(secret(), name) == 0; }},
      {"link to nothing", [&](const char *name) { return ::symlink(missing.c_str(), name) == 0; }},
      {"fifo", [](const char *name) { return ::mkfifo(name, 0666) == 0; }},
      {"socket", make_socket},
      {"folder", [](const char *name) { return ::mkdir(name, 0777) == 0; }},
      {"second name", nullptr}};  // root plants it where users may not
  for (const auto &thing : things) {
    for (const std::string entry : {"1/2/fax.quota", "1/2/fax.quota.dirty", "1/2/quota.redo"}) {
      SCOPED_TRACE(std::string(thing.what) + " as " + entry);
      const std::string path = quota_root() + "/" + entry;
      begin_with_empty_store();
      refresh(0);
      for (const int force : {0, 10}) {
        fs::remove(path);
        if (thing.put == nullptr) {
          ASSERT_EQ(::link(secret(), path.c_str()), 0);
        } else {
          as_asterisk([&] { return thing.put(entry.c_str()); });
        }
        refresh(force);
        EXPECT_EQ(lines_that_name(entry), entry.ends_with(".quota") ? 1 : 0);
        EXPECT_EQ(box.run_spoolcap({"-A", "show", "-a"}).status, 0);
        fs::remove(path);
        expect_siblings_exact(entry);
      }
      refresh(0);
      EXPECT_EQ(stored(), right_figures);
    }
  }
}

TEST_F(Attack, ALinkInPlaceOfAFolderIsNotEntered) {
  for (const std::string &target : {outside().string(), (outside() / "missing").string()}) {
    for (const std::string entry : {"1", "1/2", "1/2/21"}) {
      SCOPED_TRACE(std::string(entry).append(" -> ").append(target));
      begin_with_empty_store();
      refresh(0);
      as_asterisk([&] {
        return ::rename(entry.c_str(), "away") == 0 &&
               ::symlink(target.c_str(), entry.c_str()) == 0;
      });
      for (const int force : {0, 10}) {
        refresh(force);
        EXPECT_EQ(lines_that_name(entry), 1);
        fs::remove_all(quota_root() + "/away");
        expect_siblings_exact(entry);
      }
    }
  }
}

TEST_F(Attack, RootsOwnLinkInAFolderOfRootsIsFollowed) {
  const std::string moved = box.path("var/lib/moved");
  fs::rename(quota_root(), moved);
  fs::create_symlink(moved, quota_root());
  ASSERT_EQ(::chown(moved.c_str(), 0, 0), 0);
  fs::permissions(moved, fs::perms(0755));
  box.make_folder("var/lib/disk");
  fs::create_symlink(box.path("var/lib/disk"), moved + "/1");
  refresh(0);
  EXPECT_EQ(box.read_file("var/lib/disk/sound.quota"), "1234.0");
  EXPECT_EQ(box.read_file("var/lib/disk/2/22/recording.quota"), "5.0");
  EXPECT_EQ(lines_that_name("1"), 0);
}

// Puts a link where the next call is about to look, for every call of the run in turn.
TEST_F(Attack, NothingOutsideIsReachedByALinkMadeBetweenTwoCalls) {
  const auto is_named = [&](const call &one) {
    return (one.traits & (BY_NAME | CHANGES)) != 0 && one.path.size() > quota_root().size();
  };
  for (const int force : {0, 10}) {
    const auto begin = [&] {
      begin_with_empty_store();
      if (force != 0) refresh(0);
    };
    begin();
    int calls = 0;
    refresh(force, [&](const call &one) {
      calls += is_named(one) ? 1 : 0;
      return fate{};
    });
    int moves = 0;
    for (int chosen = 1; chosen <= calls; chosen += 5) {
      begin();
      int count = 0;
      std::string entry;
      refresh(force, [&](const call &one) {
        if (!is_named(one) || ++count != chosen) return fate{};
        // By turns the entry itself, and the folder that it is in.
        entry = fs::relative(one.path, quota_root());
        if (chosen % 2 == 0 && entry.find('/') != entry.npos) entry = fs::path(entry).parent_path();
        const bool folder = entry.find('.') == entry.npos;
        as_asterisk([&] {
          ::rename(entry.c_str(), "away");
          // Where it cannot, it does without.
          [[maybe_unused]] const int linked =
              ::symlink(folder ? outside().c_str() : secret(), entry.c_str());
          return true;
        });
        moves += fs::is_symlink(quota_root() + "/" + entry) ? 1 : 0;
        return fate{};
      });
      ASSERT_FALSE(HasFailure()) << "a link at " << entry << " before call " << chosen;
    }
    EXPECT_GT(moves, 30);
  }
}

}  // namespace
