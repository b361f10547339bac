// campaign                     every fault at every call that it can meet, in runs of the command
// campaign --spread COUNT      of each fault and kind of run only so many, spread over the run
// campaign FAULT RUN NUMBER    one of them; tells the calls and prints what the command printed
//
// After each faulted run a run without faults has to leave every file as it should be.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <stdexcept>

#include "main/quota/settings.h"
#include "tests/faults/traced.h"
#include "tests/support/paths_sandbox.h"
#include "tests/unit/refresh_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace faults;

const struct fault {
  const char *name;
  unsigned meets;  // calls with one of these traits
  fate first;      // of the n-th of them
  fate later;      // of those after it
  unsigned later_meets;
} all_faults[] = {
    {"kill", CHANGES, {fate::KILL}, {}, 0},
    {"full-disk", CREATES | WRITES, {fate::FAIL, ENOSPC}, {fate::FAIL, ENOSPC}, CREATES | WRITES},
    {"no-more-files", CREATES, {fate::FAIL, ENOSPC}, {fate::FAIL, ENOSPC}, CREATES},
    {"short-then-full", WRITES, {fate::SHORTEN}, {fate::FAIL, ENOSPC}, CREATES | WRITES},
    {"short-write", WRITES, {fate::SHORTEN}, {}, 0},
    {"EDQUOT", CREATES | WRITES, {fate::FAIL, EDQUOT}, {}, 0},
    {"EIO", ~0U & ~CLOSES, {fate::FAIL, EIO}, {}, 0},
    {"dead-disk", ~0U & ~CLOSES, {fate::FAIL, EIO}, {fate::FAIL, EIO}, ~0U & ~CLOSES},
    {"EACCES", BY_NAME, {fate::FAIL, EACCES}, {}, 0},
    {"EMFILE", OPENS, {fate::FAIL, EMFILE}, {}, 0},
    {"ENOMEM", BY_NAME | READS, {fate::FAIL, ENOMEM}, {}, 0},
    {"EINTR", OPENS | READS | WRITES | LOCKS, {fate::FAIL, EINTR}, {}, 0},
    {"allocation", 0, {}, {}, 0},  // meets no call: the n-th allocation fails
};
constexpr std::size_t fault_count = std::size(all_faults);

bool is_allocation(const fault &what) {
  return what.meets == 0;
}

// A kind of run: the command, over what it finds.
const struct run_kind {
  const char *name;
  std::vector<const char *> command;
} all_runs[] = {{"empty", {"-A", "set", "-a", "-q"}},
                {"exact", {"-A", "set", "-a", "-q", "--force"}},
                {"due", {"-A", "set", "-a", "-q"}},
                {"show", {"-A", "show", "-a"}}};
constexpr std::size_t run_count = std::size(all_runs);

// The count of one cell of the table, shared by the workers.
struct tally {
  std::atomic<int> tried, failed;
};

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

// The platform of one worker and the runs over it. Checks give what is wrong, or nothing.
class laboratory : private small_platform {
 public:
  laboratory() {
    if (getuid() == 0 && get_ids("asterisk", "asterisk", &uid_, &gid_) != 0) {
      throw std::runtime_error("no user asterisk: run this under the test environment");
    }
  }

  // How many chances each fault has in a run.
  std::vector<int> chances(const run_kind &kind) {
    prepare(kind);
    std::vector<int> counts(fault_count);
    environment_ = {{"FAIL_COUNT", box.path("count")}};
    run(kind, [&](const call &one) {
      for (std::size_t f = 0; f < fault_count; ++f) {
        counts[f] += (one.traits & all_faults[f].meets) != 0 ? 1 : 0;
      }
      return fate{};
    });
    counts[fault_count - 1] = std::stoi(box.read_file("count").value_or("0"));
    right_report_ = box.read_file("output").value();
    return counts;
  }

  std::string try_fault(const fault &what, const run_kind &kind, int number, bool tell) {
    prepare(kind);
    if (is_allocation(what)) environment_ = {{"FAIL_AT", std::to_string(number)}};
    int count = 0;
    std::string where;
    bool forbidden_media = false;
    const int status = run(kind, [&](const call &one) {
      if (tell) std::printf("%s %s\n", one.name, one.path.c_str());
      if (count == number) return (one.traits & what.later_meets) != 0 ? what.later : fate{};
      if ((one.traits & what.meets) == 0 || ++count < number) return fate{};
      where = std::string("at ") + one.name + " " + one.path.substr(box.path("var/").size());
      forbidden_media = what.first.error == EACCES && !one.path.starts_with(quota_root());
      return what.first;
    });
    if (tell) std::puts(box.read_file("output").value().c_str());
    const std::string wrong = result_of(what, status, forbidden_media);
    if (wrong.empty()) return {};
    exact_ = false;
    return where + ": " + wrong;
  }

 private:
  int run(const run_kind &kind, const decision &decide) {
    const auto become_command = [&] {
      std::vector<const char *> argv = {SPOOLCAP_SANDBOX_BINARY};
      argv.insert(argv.end(), kind.command.begin(), kind.command.end());
      argv.push_back(nullptr);
      setenv(support::paths_root_variable, box.root().c_str(), 1);
      for (const auto &[name, value] : environment_) setenv(name.c_str(), value.c_str(), 1);
      if (!environment_.empty()) {
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
    const int status = run_traced(become_command, box.path("var/"), decide);
    environment_.clear();
    return status;
  }

  std::string result_of(const fault &what, int status, bool forbidden_media) {
    const bool killed = what.first.what == fate::KILL && WIFSIGNALED(status);
    if (WIFSIGNALED(status) && !killed) {
      return std::string("ended by signal ") + strsignal(WTERMSIG(status));
    }
    const std::set<std::string> right = printed_figures(right_report_);
    for (const std::string &line : printed_figures(box.read_file("output").value())) {
      if (!right.contains(line)) return "printed " + line;
    }
    if (const int healed = box.run_spoolcap({"-A", "set", "-a", "-q"}).status; healed != 0) {
      return "the next run ends with " + std::to_string(healed);
    }
    if (!forbidden_media) return difference();
    exact_ = false;  // what is forbidden counts as nothing, and stays so
    return malformed();
  }

  void prepare(const run_kind &kind) {
    const std::string name = kind.name;
    if (name == "empty") fs::remove_all(quota_root());
    if (name != "empty" && !exact_) {
      fs::remove_all(quota_root());
      box.run_spoolcap({"-A", "set", "-a", "-q"});
      const std::string wrong = difference();
      if (!wrong.empty()) throw std::runtime_error("a run without faults: " + wrong);
      exact_ = true;
    }
    if (name == "due") make_all_due();
  }

  // No file is right, and each is due for one reason or another.
  void make_all_due() {
    std::size_t next = 0;
    for (const auto &[place, unused] : right_figures) {
      const std::string folder = "var/lib/quorvexquota/" + place + "/";
      for (const char *kind : quota_kind_names) {
        const char *records[] = {"9.1000", "7000", "", "12..", "9.0"};
        const std::size_t reason = next++ % std::size(records);
        const std::string file = folder + kind + ".quota";
        box.write_file(file, records[reason]);
        if (reason == std::size(records) - 1) box.write_file(file + ".dirty", "");
      }
      ++next;  // so that the reasons fall on other kinds in each place
    }
  }

  std::string difference() const {
    const figures now = stored();
    for (const auto &[place, files] : now) {
      const auto right = right_figures.find(place);
      if (right == right_figures.end()) return place + " should not be there";
      if (files != right->second) return place + " holds " + files;
    }
    if (now.size() != right_figures.size()) return "an account is missing";
    std::size_t entries = 0;
    for (const auto &entry : fs::recursive_directory_iterator(quota_root())) {
      ++entries;
      if (const std::string wrong = strange(entry.path()); !wrong.empty()) return wrong;
    }
    const std::size_t expected = right_figures.size() * (1 + QUOTA_ALL_KINDS);
    return entries == expected ? strange(quota_root()) : "a file too many";
  }

  std::string malformed() const {
    for (const auto &[place, files] : stored()) {
      std::string shape;  // every number written as 0
      for (const char c : files) {
        const bool digit = c >= '0' && c <= '9';
        if (!digit || !shape.ends_with('0')) shape += digit ? '0' : c;
      }
      if (shape != "0.0 0.0 0.0 0.0 0.0") return place + " holds " + files;
    }
    return {};
  }

  std::string strange(const fs::path &path) const {
    struct stat status {};
    lstat(path.c_str(), &status);
    const mode_t wanted = S_ISDIR(status.st_mode) ? S_IFDIR | 0770 : S_IFREG | 0660;
    const std::string name = path.string().substr(box.path("var/lib/").size());
    if (status.st_mode != wanted) return name + " has another mode";
    if (status.st_uid != uid_ || status.st_gid != gid_) return name + " is another's";
    return {};
  }

  uid_t uid_ = getuid();
  gid_t gid_ = getgid();
  bool exact_ = false;                              // the store, before the next run
  std::map<std::string, std::string> environment_;  // of the next run
  std::string right_report_;
};

class campaign {
 public:
  explicit campaign(int most)
      : most_(most),
        table_(static_cast<tally *>(mmap(nullptr, cells * sizeof(tally), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}

  // Every `of`-th case, beginning with `index`.
  void work(int index, int of) {
    laboratory place;
    int turn = 0;
    for (std::size_t r = 0; r < run_count; ++r) {
      const std::vector<int> chances = place.chances(all_runs[r]);
      for (std::size_t f = 0; f < fault_count; ++f) {
        const int cases = std::min(chances[f], most_);
        for (int i = 0; i < cases; ++i) {
          const int number = 1 + static_cast<int>((i + 0.5) * chances[f] / cases);
          if (turn++ % of == index) try_one(place, f, r, number);
        }
      }
    }
  }

  // Prints the table; true when all was tried and nothing failed.
  bool report() const {
    std::printf("%-16s", "fault");
    for (const run_kind &one : all_runs) std::printf("%8s%8s", one.name, "failed");
    bool good = true;
    for (std::size_t f = 0; f < fault_count; ++f) {
      std::printf("\n%-16s", all_faults[f].name);
      int tried = 0;
      for (std::size_t r = 0; r < run_count; ++r) {
        const tally &cell = table_[f * run_count + r];
        std::printf("%8d%8d", cell.tried.load(), cell.failed.load());
        tried += cell.tried;
        good = good && cell.failed == 0;
      }
      good = good && tried > 0;
    }
    std::puts("");
    return good;
  }

 private:
  static constexpr std::size_t cells = fault_count * run_count;

  void try_one(laboratory &place, std::size_t f, std::size_t r, int number) {
    tally &cell = table_[f * run_count + r];
    ++cell.tried;
    const std::string wrong = place.try_fault(all_faults[f], all_runs[r], number, false);
    if (wrong.empty()) return;
    ++cell.failed;
    std::printf("make faults CASE='%s %s %d'  # %s\n", all_faults[f].name, all_runs[r].name, number,
                wrong.c_str());
    std::fflush(stdout);
  }

  int most_;  // of one fault in one kind of run
  tally *table_;
};

int run_all(int most) {
  campaign whole(most);
  std::vector<pid_t> workers;
  const int of = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  for (int index = 0; index < of; ++index) {
    const pid_t worker = fork();
    if (worker == 0) {
      whole.work(index, of);
      std::exit(0);
    }
    workers.push_back(worker);
  }
  bool good = true;
  for (const pid_t worker : workers) {
    int status = 0;
    waitpid(worker, &status, 0);
    good = good && status == 0;
  }
  return whole.report() && good ? 0 : 1;
}

const auto &named(const auto &list, const std::string &name) {
  const auto found = std::find_if(std::begin(list), std::end(list),
                                  [&](const auto &one) { return one.name == name; });
  if (found == std::end(list)) throw std::runtime_error("there is no " + name);
  return *found;
}

int run_one(const std::string &what, const std::string &kind, int number) {
  laboratory place;
  place.chances(named(all_runs, kind));
  const std::string wrong =
      place.try_fault(named(all_faults, what), named(all_runs, kind), number, true);
  std::puts(wrong.empty() ? "good" : wrong.c_str());
  return wrong.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 3) return run_one(words[0], words[1], std::stoi(words[2]));
    return run_all(words.size() == 2 ? std::stoi(words[1]) : INT_MAX);
  } catch (const std::exception &failure) {
    std::fprintf(stderr, "campaign: %s\n", failure.what());
    return 1;
  }
}
