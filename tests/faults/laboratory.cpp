#include "tests/faults/laboratory.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <stdexcept>

#include "platform/base/ids.h"
#include "tests/support/paths_sandbox.h"

namespace faults {

namespace fs = std::filesystem;

const std::vector<fault> all_faults = {
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
    {"allocation", 0, {}, {}, 0},
    {"no-more-memory", 0, {}, {fate::FAIL, ENOMEM}, 0},
};

const std::vector<run_kind> all_runs = {{"empty", {"-A", "set", "-a", "-q"}},
                                        {"exact", {"-A", "set", "-a", "-q", "--force"}},
                                        {"due", {"-A", "set", "-a", "-q"}},
                                        {"show", {"-A", "show", "-a"}}};

namespace {

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

}  // namespace

laboratory::laboratory() : uid_(getuid()), gid_(getgid()) {
  if (uid_ == 0 && get_ids("asterisk", "asterisk", &uid_, &gid_) != 0) {
    throw std::runtime_error("no user asterisk: run this under the test environment");
  }
}

std::vector<int> laboratory::chances(const run_kind &kind) {
  prepare(kind);
  std::vector<int> counts(all_faults.size());
  run(kind, {{"FAIL_COUNT", box.path("count")}}, [&](const call &one) {
    for (std::size_t f = 0; f < counts.size(); ++f) {
      counts[f] += (one.traits & all_faults[f].meets) != 0 ? 1 : 0;
    }
    return fate{};
  });
  for (std::size_t f = 0; f < counts.size(); ++f) {
    if (all_faults[f].meets == 0) counts[f] = std::stoi(box.read_file("count").value_or("0"));
  }
  right_report_ = box.read_file("output").value();
  return counts;
}

std::string laboratory::try_fault(const fault &what, const run_kind &kind, int number, bool tell) {
  prepare(kind);
  environment variables;
  if (what.meets == 0) variables["FAIL_AT"] = std::to_string(number);
  if (what.meets == 0 && what.later.what == fate::FAIL) variables["FAIL_ON"] = "1";
  int count = 0;
  std::string where;
  bool forbidden_media = false;
  const int status = run(kind, variables, [&](const call &one) {
    if (tell) std::printf("%s %s\n", one.name, one.path.c_str());
    if (count == number) return (one.traits & what.later_meets) != 0 ? what.later : fate{};
    if ((one.traits & what.meets) == 0 || ++count < number) return fate{};
    where = std::string("at ").append(one.name).append(" ");
    where += one.path.substr(box.path("var/").size());
    forbidden_media = what.first.error == EACCES && !one.path.starts_with(platform.quota_root());
    return what.first;
  });
  if (tell) std::puts(box.read_file("output").value().c_str());
  const std::string wrong = result_of(what, status, forbidden_media);
  if (wrong.empty()) return {};
  exact_ = false;
  return where + ": " + wrong;
}

int laboratory::run(const run_kind &kind, const environment &variables, const decision &decide) {
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

std::string laboratory::result_of(const fault &what, int status, bool forbidden_media) {
  const bool killed = what.first.what == fate::KILL && WIFSIGNALED(status);
  if (WIFSIGNALED(status) && !killed) {
    return std::string("ended by signal ") + strsignal(WTERMSIG(status));
  }
  const std::set<std::string> right = printed_figures(right_report_);
  const std::string output = box.read_file("output").value();
  if (what.meets == 0 && !right.empty()) {
    const bool tells =
        output.find("ot found") != output.npos || output.find("ot Found") != output.npos;
    if (status == 0 && output != right_report_ && !tells) return "hides what is missing";
    if (status != 0 && output.empty()) return "ends without a reason";
  }
  for (const std::string &line : printed_figures(output)) {
    if (!right.contains(line)) return "printed " + line;
  }
  if (const int healed = box.run_spoolcap({"-A", "set", "-a", "-q"}).status; healed != 0) {
    return "the next run ends with " + std::to_string(healed);
  }
  if (!forbidden_media) return difference();
  exact_ = false;  // what is forbidden counts as nothing, and stays so
  return malformed();
}

void laboratory::prepare(const run_kind &kind) {
  const std::string name = kind.name;
  if (name == "empty") fs::remove_all(platform.quota_root());
  if (name != "empty" && !exact_) {
    fs::remove_all(platform.quota_root());
    box.run_spoolcap({"-A", "set", "-a", "-q"});
    const std::string wrong = difference();
    if (!wrong.empty()) throw std::runtime_error("a run without faults: " + wrong);
    exact_ = true;
  }
  if (name == "due") make_all_due();
}

// No file is right, and each is due for one reason or another: those of one account by the redo
// mark, as they look right.
void laboratory::make_all_due() {
  constexpr const char *records[] = {"9.1000", "7000", "", "12..", "9.0"};
  std::size_t next = 0;
  for (const auto &[place, unused] : right_figures) {
    const std::string folder = std::string("var/lib/quorvexquota/").append(place).append("/");
    const bool by_redo = place == "1/2/22";
    if (by_redo) box.write_file(folder + "quota.redo", "");
    for (const char *kind : quota_kind_names) {
      const std::string file = std::string(folder).append(kind).append(".quota");
      const std::string record = by_redo ? "9.0" : records[next++ % std::size(records)];
      box.write_file(file, record);
      if (record == "9.0" && !by_redo) box.write_file(file + ".dirty", "");
    }
    ++next;  // so that the reasons fall on other kinds in each place
  }
}

std::string laboratory::difference() const {
  const figures now = platform.stored();
  for (const auto &[place, files] : now) {
    const auto right = right_figures.find(place);
    if (right == right_figures.end()) return place + " should not be there";
    if (files != right->second) return std::string(place).append(" holds ").append(files);
  }
  if (now.size() != right_figures.size()) return "an account is missing";
  std::size_t entries = 0;
  for (const auto &entry : fs::recursive_directory_iterator(platform.quota_root())) {
    ++entries;
    if (std::string wrong = strange(entry.path()); !wrong.empty()) return wrong;
  }
  const std::size_t expected = right_figures.size() * (1 + QUOTA_ALL_KINDS);
  return entries == expected ? strange(platform.quota_root()) : "a file too many";
}

std::string laboratory::malformed() const {
  for (const auto &[place, files] : platform.stored()) {
    std::string shape;  // every number written as 0
    for (const char c : files) {
      const bool digit = c >= '0' && c <= '9';
      if (!digit || !shape.ends_with('0')) shape += digit ? '0' : c;
    }
    if (shape != "0.0 0.0 0.0 0.0 0.0") return std::string(place).append(" holds ").append(files);
  }
  return {};
}

std::string laboratory::strange(const fs::path &path) const {
  struct stat status {};
  lstat(path.c_str(), &status);
  const mode_t wanted = S_ISDIR(status.st_mode) ? S_IFDIR | 0770 : S_IFREG | 0660;
  const std::string name = path.string().substr(box.path("var/lib/").size());
  if (status.st_mode != wanted) return name + " has another mode";
  if (status.st_uid != uid_ || status.st_gid != gid_) return name + " is another's";
  return {};
}

}  // namespace faults
