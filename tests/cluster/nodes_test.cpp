// Two nodes on one database and one cache: each with a quota root of its own, and both on one.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <spoolcap/quota.h>
#include <spoolcap/sqlsession.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>

#include "main/quota/locks.h"
#include "tests/cluster/figures.h"
#include "tests/support/log_capture.h"
#include "tests/support/paths_sandbox.h"

using namespace std::chrono_literals;
using support::sandbox;

namespace {

constexpr int updates = 200;
const std::vector<std::string> refresh = {"--action", "set", "--all", "--force", "--quiet"};

class Nodes : public testing::Test {
 protected:
  Nodes() {
    fill(first);
    for (const char *file : {"pbx", "sqldbase", "disdbase"}) {
      const std::string name = std::string("etc/quorvex/") + file + ".conf";
      second.write_file(name, first.read_file(name).value());
    }
    std::filesystem::permissions(second.path("etc/quorvex/pbx.conf"), std::filesystem::perms(0640));
    first.write_file(sandbox::sound_folder("100") + "/of-the-first", 5);
    second.write_file(sandbox::sound_folder("100") + "/of-the-second", 7);
  }

  void share_the_root() {
    second.write_file("etc/quorvex/paths.conf",
                      "QUORVEX_QUOTA_D " + first.path("var/lib/quorvexquota") + "\n");
  }
  // Both at the same moment.
  void refresh_both() const {
    const auto one = first.start_spoolcap(refresh), other = second.start_spoolcap(refresh);
    EXPECT_EQ(one->wait(60s).value().status, 0);
    EXPECT_EQ(other->wait(60s).value().status, 0);
  }
  // Components of a node that count a byte many times.
  static std::unique_ptr<support::background_process> counting(const sandbox &node) {
    return std::make_unique<support::background_process>([&node] {
      support::set_paths_root(node.root());
      qx_sql_pool_init();
      bool good = true;
      for (int i = 0; i < updates; ++i) good &= quota_update(100, QUOTA_MUSIC, 1, 5000) == 0;
      return good;
    });
  }
  void count_on_both() const {
    const auto one = counting(first), other = counting(second);
    EXPECT_EQ(one->wait(60s).value().status, 0);
    EXPECT_EQ(other->wait(60s).value().status, 0);
  }

  sandbox first;
  sandbox second{{.use_database = false, .use_cache = false}};
};

TEST_F(Nodes, WithRootsOfTheirOwnEachMeasuresItsDiskAndCountsItsUpdates) {
  refresh_both();
  figures of_first = figures_of(first);
  const figures of_second = figures_of(second);
  EXPECT_EQ(of_first.at("1/sound"), 5);
  EXPECT_EQ(of_second.at("1/sound"), 7);
  for (const char *place : {"1/sound", "1/10/sound", "1/10/100/sound"}) of_first[place] = 7;
  EXPECT_EQ(of_first, of_second) << "all else is the database's";

  count_on_both();
  EXPECT_EQ(figures_of(first).at("1/music"), updates);
  EXPECT_EQ(figures_of(second).at("1/music"), updates);
}

TEST_F(Nodes, OnOneRootUpdatesOfBothAddUpAndRefreshesDoNotSpoilEachOther) {
  share_the_root();
  refresh_both();
  const figures expected = figures_of(first);
  EXPECT_EQ(expected.at("1/recording"), recordings_of_a_reseller);
  EXPECT_EQ(certain_figures_of(first), expected);
  count_on_both();
  EXPECT_EQ(figures_of(first).at("1/music"), 2 * updates);
  EXPECT_EQ(figures_of(first).at("1/10/100/music"), 2 * updates);
  EXPECT_EQ(certain_figures_of(first).size(), expected.size()) << "no update gave up";
}

// From now on flock gives ENOLCK in this process, as on a network file system without its locks.
bool refuse_locks() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_flock, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOLCK),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {std::size(rules), rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(Nodes, ARootWithoutWorkingLocksIsLoggedOnce) {
  const int status = support::run_forked([this] {
    support::log_capture log;
    support::set_paths_root(first.root());
    qx_sql_pool_init();
    const std::string line = "quota files cannot be locked, so updates may be lost: No locks";
    log.expect(FR_LOG_ERROR, line);
    EXPECT_TRUE(refuse_locks());
    EXPECT_EQ(quota_update_slow(1, QUOTA_ALL_KINDS, nullptr, 1), 0);
    return log.count(line) == 1 && !HasFailure();
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(figures_of(first).at("1/recording"), recordings_of_a_reseller);
}

TEST(Locks, AMountWhoseLocksStayOnThisMachineIsKnownByItsOptions) {
  const std::string mount = "45 29 0:52 / /q rw,relatime shared:1 - nfs h:/q rw,vers=3,";
  EXPECT_EQ(local_lock_option(mount + "nolock,local_lock=all,addr=10.0.0.1"), "nolock");
  EXPECT_EQ(local_lock_option(mount + "hard,local_lock=flock"), "local_lock=flock");
  EXPECT_EQ(local_lock_option(mount + "hard,local_lock=none"), "");
  EXPECT_EQ(local_lock_option("29 1 8:1 / / rw,relatime - ext4 nolock rw"), "");
}

}  // namespace
