// Every fault at the calls of whole runs of the command: what a run prints is right, and a run
// without faults then leaves every file as it should be. Each fault is tried at three calls of each
// run, or at the one numbered SPOOLCAP_FAULT, or with "all" there at every call that it can meet.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <regex>
#include <set>
#include <sstream>

#include "platform/base/ids.h"
#include "tests/faults/traced.h"
#include "tests/support/paths_sandbox.h"
#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace faults;

struct fault {
  const char *name;
  unsigned meets;  // calls with one of these traits; none: the n-th allocation fails
  fate first;      // of the n-th of them
  fate later;      // of those after it
  unsigned later_meets;
};

void PrintTo(const fault &one, std::ostream *out) {
  *out << one.name;
}

const fault all_faults[] = {
    {"kill", CHANGES, {fate::KILL}, {}, 0},
    {"full_disk", CREATES | WRITES, {fate::FAIL, ENOSPC}, {fate::FAIL, ENOSPC}, CREATES | WRITES},
    {"no_more_files", CREATES, {fate::FAIL, ENOSPC}, {fate::FAIL, ENOSPC}, CREATES},
    {"short_then_full", WRITES, {fate::SHORTEN}, {fate::FAIL, ENOSPC}, CREATES | WRITES},
    {"short_write", WRITES, {fate::SHORTEN}, {}, 0},
    {"EDQUOT", CREATES | WRITES, {fate::FAIL, EDQUOT}, {}, 0},
    {"EIO", ~0U & ~CLOSES, {fate::FAIL, EIO}, {}, 0},
    {"dead_disk", ~0U & ~CLOSES, {fate::FAIL, EIO}, {fate::FAIL, EIO}, ~0U & ~CLOSES},
    {"EACCES", BY_NAME, {fate::FAIL, EACCES}, {}, 0},
    {"EMFILE", OPENS, {fate::FAIL, EMFILE}, {}, 0},
    {"ENOMEM", BY_NAME | READS, {fate::FAIL, ENOMEM}, {}, 0},
    {"EINTR", OPENS | READS | WRITES | LOCKS, {fate::FAIL, EINTR}, {}, 0},
    {"allocation", 0, {}, {}, 0},
    {"no_more_memory", 0, {}, {fate::FAIL, ENOMEM}, 0},
};

// The command, over what it finds.
struct run_kind {
  std::string name;
  std::vector<const char *> command;
};

const run_kind all_runs[] = {{"empty", {"-A", "set", "-a", "-q"}},
                             {"exact", {"-A", "set", "-a", "-q", "--force"}},
                             {"due", {"-A", "set", "-a", "-q"}},
                             {"show", {"-A", "show", "-a"}}};

// The figures of a report, each with its account's line; those not found are none.
std::set<std::string> printed_figures(const std::string &report) {
  std::set<std::string> found;
  std::string account;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Quota for")) account = line.substr(0, line.find('\t'));
    if (line.starts_with('\t') && line.find("Not found") == line.npos) {
      found.insert(account + line);
    }
  }
  return found;
}

class Campaign : public refresh_test, public testing::WithParamInterface<fault> {
 protected:
  using environment = std::map<std::string, std::string>;

  void SetUp() override {
    if (uid_ == 0) {
      ASSERT_EQ(get_ids("asterisk", "asterisk", &uid_, &gid_), 0);
    }
  }

  std::string output() const { return box.read_file("output").value(); }

  // How many chances the fault has in a run. To be asked before it is tried in such runs.
  int chances(const run_kind &kind) {
    prepare(kind);
    int calls = 0;
    run(kind, {{"FAIL_COUNT", box.path("count")}}, [&](const call &one) {
      calls += (one.traits & GetParam().meets) != 0 ? 1 : 0;
      return fate{};
    });
    right_report_ = output();
    return GetParam().meets != 0 ? calls : std::stoi(box.read_file("count").value());
  }

  // One run with the fault at its `number`-th chance, and one without that heals.
  void try_fault(const run_kind &kind, int number) {
    const fault &what = GetParam();
    prepare(kind);
    environment variables;
    if (what.meets == 0) variables["FAIL_AT"] = std::to_string(number);
    if (what.meets == 0 && what.later.what == fate::FAIL) variables["FAIL_ON"] = "1";
    int count = 0;
    std::string where;
    const int status = run(kind, variables, [&](const call &one) {
      if (count == number) return (one.traits & what.later_meets) != 0 ? what.later : fate{};
      if ((one.traits & what.meets) == 0 || ++count < number) return fate{};
      where = std::string(one.name) + " " + one.path;
      return what.first;
    });
    SCOPED_TRACE(where);
    expect_right_output(status);
    EXPECT_EQ(box.run_spoolcap({"-A", "set", "-a", "-q"}).status, 0);
    const bool is_media = where.find(quota_root()) == where.npos;
    exact_ = what.first.error != EACCES || !is_media;
    if (exact_) {
      expect_right_store();
    } else {  // what is forbidden counts as nothing, and stays so
      for (const auto &[place, files] : stored()) {
        EXPECT_TRUE(std::regex_match(files, std::regex(R"((\d+\.0 ?){5})"))) << place << files;
      }
    }
    exact_ = exact_ && !HasFailure();
  }

 private:
  int run(const run_kind &kind, const environment &variables, const decision &decide) const {
    const auto become_command = [&] {
      std::vector<const char *> argv = {SPOOLCAP_SANDBOX_BINARY};
      argv.insert(argv.end(), kind.command.begin(), kind.command.end());
      argv.push_back(nullptr);
      setenv(support::paths_root_variable, box.root().c_str(), 1);
      for (const auto &[name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
      if (!variables.empty()) {
        const char *others = getenv("LD_PRELOAD");
        const std::string libraries =
            std::string(SPOOLCAP_FAILING_ALLOCATION ":") + (others != nullptr ? others : "");
        setenv("LD_PRELOAD", libraries.c_str(), 1);
      }
      if (freopen(box.path("output").c_str(), "w", stdout) != nullptr &&
          dup2(STDOUT_FILENO, STDERR_FILENO) >= 0) {
        execv(argv[0], const_cast<char **>(argv.data()));
      }
      _exit(127);
    };
    return run_traced(become_command, box.path("var/"), decide);
  }

  void prepare(const run_kind &kind) {
    if (kind.name == "empty") fs::remove_all(quota_root());
    if (kind.name != "empty" && !exact_) {
      fs::remove_all(quota_root());
      box.run_spoolcap({"-A", "set", "-a", "-q"});
      expect_right_store();
      exact_ = true;
    }
    if (kind.name == "due") make_all_due();
  }

  // No file is right, and each is due for one reason or another: those of one account by the redo
  // mark, as they look right.
  void make_all_due() {
    constexpr const char *records[] = {"9.1000", "7000", "", "12..", "9.0"};
    std::size_t next = 0;
    for (const auto &[place, unused] : right_figures) {
      const bool by_redo = place == "1/2/22";
      if (by_redo) box.write_file(quota_root() + "/" + place + "/quota.redo", "");
      for (const media_kind &kind : media_kinds) {
        const std::string file = box.quota_path(std::string(place).append("/").append(kind.name));
        const std::string record = by_redo ? "9.0" : records[next++ % std::size(records)];
        box.write_file(file, record);
        if (record == "9.0" && !by_redo) box.write_file(file + ".dirty", "");
      }
      ++next;  // so that the reasons fall on other kinds in each place
    }
  }

  void expect_right_output(int status) const {
    if (WIFSIGNALED(status) && GetParam().first.what != fate::KILL) {
      ADD_FAILURE() << "ended by signal " << strsignal(WTERMSIG(status));
    }
    const std::set<std::string> right = printed_figures(right_report_);
    const std::string printed = output();
    for (const std::string &figure : printed_figures(printed)) EXPECT_TRUE(right.contains(figure));
    if (GetParam().meets != 0 || right.empty()) return;
    const bool tells =
        printed.find("ot found") != printed.npos || printed.find("ot Found") != printed.npos;
    EXPECT_TRUE(status != 0 || printed == right_report_ || tells) << "hides what is missing";
    EXPECT_TRUE(status == 0 || !printed.empty()) << "ends without a reason";
  }

  void expect_right_store() const {
    EXPECT_EQ(stored(), right_figures);
    std::vector<fs::path> paths = {quota_root()};
    for (const auto &entry : fs::recursive_directory_iterator(quota_root())) {
      paths.push_back(entry.path());
    }
    EXPECT_EQ(paths.size(), 1 + right_figures.size() * (1 + QUOTA_ALL_KINDS)) << "a file too many";
    for (const fs::path &path : paths) {
      struct stat found {};
      ::lstat(path.c_str(), &found);
      EXPECT_EQ(found.st_mode, S_ISDIR(found.st_mode) ? S_IFDIR | 0770U : S_IFREG | 0660U) << path;
      EXPECT_TRUE(found.st_uid == uid_ && found.st_gid == gid_) << path;
    }
  }

  uid_t uid_ = ::getuid();
  gid_t gid_ = ::getgid();
  bool exact_ = false;  // the store, before the next run
  std::string right_report_;
};

TEST_P(Campaign, ARunTellsTheTruthAndTheNextOneHeals) {
  const char *variable = std::getenv("SPOOLCAP_FAULT");
  const std::string wanted = variable != nullptr ? variable : "";
  int tried = 0;
  for (const run_kind &kind : all_runs) {
    const int all = chances(kind);
    const int cases = wanted.empty() ? std::min(all, 3) : all;
    for (int i = 0; i < cases; ++i) {
      const int number = 1 + static_cast<int>((i + 0.5) * all / cases);
      const bool is_wanted = wanted.empty() || wanted == "all" || wanted == std::to_string(number);
      if (!is_wanted) continue;
      SCOPED_TRACE(kind.name + " with the fault at chance " + std::to_string(number));
      try_fault(kind, number);
      ++tried;
    }
  }
  EXPECT_GT(tried, 0);
}

INSTANTIATE_TEST_SUITE_P(Of, Campaign, testing::ValuesIn(all_faults),
                         [](const auto &one) { return one.param.name; });

}  // namespace
