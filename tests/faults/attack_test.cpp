// User asterisk owns the quota root and turns against a refresh that runs as root: with what he put
// there before, and with what he does between any two system calls.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>

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

  // What is in the folder that is none of asterisk's business.
  std::string seen_outside() const {
    return support::run_process({"find", outside(), "-printf", "%p %M %U:%G %s %T@\n"}).out;
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

  int times_logged(const std::string &entry) const {
    const std::string lines = box.read_file("log").value_or("");
    const std::string named = quota_root() + "/" + entry + " ";
    int count = 0;
    for (size_t at = lines.find(named); at != lines.npos; at = lines.find(named, at + 1)) ++count;
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

using makes = std::function<bool(const char *name)>;

makes link_to(const fs::path &target) {
  return [target](const char *name) { return ::symlink(target.c_str(), name) == 0; };
}

TEST_F(Attack, WhatIsPutInTheWayHarmsNothingOutside) {
  const std::vector<std::string> files = {"1/2/fax.quota", "1/2/fax.quota.dirty", "1/2/quota.redo"};
  const std::vector<std::string> folders = {"1", "1/2", "1/2/21"};
  const fs::path missing = outside() / "missing";
  const struct {
    const char *what;
    const std::vector<std::string> &entries;
    makes put;
  } things[] = {{"link", files, link_to(secret())},
                {"link to nothing", files, link_to(missing)},
                {"link to a folder", folders, link_to(outside())},
                {"link to no folder", folders, link_to(missing)},
                {"fifo", files, [](auto name) { return ::mkfifo(name, 0666) == 0; }},
                {"socket", files, [](auto name) { return ::mknod(name, S_IFSOCK | 0666, 0) == 0; }},
                {"folder", files, [](auto name) { return ::mkdir(name, 0777) == 0; }},
                {"second name", files, nullptr}};  // root plants it where users may not
  for (const auto &thing : things) {
    for (const std::string &entry : thing.entries) {
      SCOPED_TRACE(std::string(thing.what).append(" as ").append(entry));
      const std::string path = quota_root() + "/" + entry;
      const bool is_mark = entry.ends_with(".dirty") || entry.ends_with(".redo");
      begin_with_empty_store();
      refresh(0);
      for (const int force : {0, 10}) {
        fs::remove_all(path);
        if (thing.put == nullptr) {
          ASSERT_EQ(::link(secret(), path.c_str()), 0);
        } else {
          as_asterisk([&] { return thing.put(entry.c_str()); });
        }
        refresh(force);
        EXPECT_EQ(times_logged(entry), is_mark ? 0 : 1);
        EXPECT_EQ(box.run_spoolcap({"-A", "show", "-a"}).status, 0);
        fs::remove(path);
        expect_siblings_exact(entry);
      }
      refresh(0);
      EXPECT_EQ(stored(), right_figures);
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
  EXPECT_EQ(times_logged("1"), 0);
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
